#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>

#include "tools/quillon-module/clause-functions.h"
#include "tools/quillon-module/module.h"

namespace quillon::kit {

const char* wordOf(Verdict verdict)
{
    static constexpr const char* kWords[] = {"none", "kept", "broken", "not offered",
                                             "not checked"};
    return kWords[static_cast<int>(verdict)];
}

std::string Subject::name() const
{
    return std::filesystem::path(file).stem();
}

bool Subject::isProcess() const
{
    std::string lower = name();
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return lower.find("ext-") != std::string::npos;
}

const std::vector<Clause>& allClauses()
{
    constexpr unsigned kUpdate = kFirmware | kImage;
    static const std::vector<Clause> kClauses = {
        // Gates: what the others are asked through.
        {"file", 1, "is a shared library whose name ends in .so", kGate, holdFile},
        {"architecture", 1, "is built for this machine", kGate, holdArchitecture},
        {"libraries", 1, "needs only libraries that are there", kGate, holdLibraries},
        {"symbols", 1, "has every symbol that it uses when it is loaded", kGate, holdSymbols},
        {"entries", 1, "has the five required entries under their plain names", kGate, holdEntries},

        // 1: without these the service does not load it, or cannot use it.
        {"executable-memory", 1, "asks for no executable stack and no text relocations", kNothing,
         holdExecutableMemory},
        {"unprivileged", 1, "loads as an unprivileged user", kNothing, holdUnprivileged},
        {"context", 1, "takes each caller, and an argument that is empty or null", kNothing,
         holdContext},
        {"identifier", 1, "has an identifier of letters and digits with emp once", kFirmware,
         holdIdentifier},
        {"version", 1, "tells the version that it runs, printable and at most 127 characters",
         kNothing, holdVersion},

        // 2: what an update is found and decided by.
        {"stick-entries", 2, "has both entries that an update from a stick needs", kFirmware,
         holdStickEntries},
        {"unique", 2, "has a firmware name that no other of the modules has", kFirmware,
         holdUnique},
        {"image-name", 2, "has the firmware name that the image has", kFirmware, holdImageName},
        {"info", 2, "has an information file that describes the image", kFirmware | kInfo,
         holdInfo},
        {"info-version", 2, "takes the version of its information file for one", kFirmware | kInfo,
         holdInfoVersion},
        {"need", 2, "answers 0 or 1 when a version is offered", kFirmware, holdNeed},
        {"expected-time", 2, "expects an update to take from 1 second to a day", kFirmware | kTime,
         holdExpectedTime},
        {"exports", 2, "hides everything but the entries", kNothing, holdExports},

        // 3: an update.
        {"same-version", 3, "needs no update to the version that it runs", kFirmware,
         holdSameVersion},
        {"quick-queries", 3, "answers each query within a second", kNothing, holdQuickQueries},
        {"stick-update", 3, "runs what was offered after an update from a stick", kUpdate | kStick,
         holdStickUpdate},
        {"package-update", 3, "runs what was offered after an update from a package", kUpdate,
         holdPackageUpdate},
        {"remembered", 3, "runs it still when it is loaded anew", kUpdate, holdRemembered},
        {"honest-time", 3, "is updated at most 2 seconds later than expected", kUpdate | kTime,
         holdHonestTime},
        {"missing-file", 3, "fails with errno without its file, and keeps the version", kUpdate,
         holdMissingFile},
        {"empty-payload", 3, "installs an empty payload as offered, or refuses it with errno",
         kUpdate | kStick, holdEmptyPayload},

        // 4: what harms the service or another module one day.
        {"noise", 4, "refuses a version that is noise, as another image key makes it", kFirmware,
         holdNoise},
        {"empty-version", 4, "refuses a version without text", kFirmware, holdEmptyVersion},
        {"overlong-version", 4, "refuses a version that it could not tell once it runs it",
         kFirmware, holdOverlongVersion},
        {"argument-pointer", 4, "keeps no pointer to an argument, and does not change it", kNothing,
         holdArgumentPointer},
        {"version-pointer", 4, "keeps no pointer to an offered version", kUpdate | kStick,
         holdVersionPointer},
        {"payload-bounds", 4, "reads the payload alone, and does not change it", kUpdate | kStick,
         holdPayloadBounds},
        {"payload-pointer", 4, "keeps no pointer to the payload", kUpdate | kStick,
         holdPayloadPointer},
        {"path-pointer", 4, "keeps no pointer to the path, and no file of the package open",
         kUpdate, holdPathPointer},
        {"queries-meanwhile", 4, "answers queries from another thread during an update", kUpdate,
         holdQueriesMeanwhile},
        {"threads", 4, "leaves no thread behind", kNothing, holdThreads},
        {"children", 4, "leaves no process behind", kNothing, holdChildren},
        {"descriptors", 4, "leaves no file open", kNothing, holdDescriptors},
        {"signals", 4, "leaves signal handlers and the signal mask alone", kNothing, holdSignals},
        {"working-directory", 4, "leaves the working directory and the file mask alone", kNothing,
         holdWorkingDirectory},
        {"unloading", 4, "can be unloaded", kNothing, holdUnloading},

        // 5: what its maker should want.
        {"same-answers", 5, "answers the same when it is asked the same again", kNothing,
         holdSameAnswers},
        {"older-version", 5, "answers when an older version is offered", kFirmware,
         holdOlderVersion},
        {"progress", 5, "tells a progress from 0 to 100, and 100 at the end", kUpdate | kProgress,
         holdProgress},
        {"no-offer", 5, "refuses an update that nothing was offered for, with errno", kUpdate,
         holdNoOffer},
        {"end-of-run", 5, "returns 0 when a run is over", kNothing, holdEndOfRun},
        {"silent", 5, "writes nothing to standard output and standard error", kNothing, holdSilent},
    };
    return kClauses;
}

const Clause* findClause(const std::string& name)
{
    const auto& all = allClauses();
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&](const Clause& clause) { return clause.name == name; });
    return found == all.end() ? nullptr : &*found;
}

namespace {

void requireNeeds(unsigned needs, Module& module)
{
    const Subject& subject = module.subject();
    if ((needs & kFirmware) != 0 && subject.isProcess()) {
        notOffered("it is a process module");
    }
    if ((needs & kInfo) != 0 && subject.info.empty()) {
        notChecked("give its information file: --info info.json");
    }
    for (const auto& [need, entry] : {std::pair{kStick, "doUpdate_decryption"},
                                      {kTime, "getExpectedTime"},
                                      {kProgress, "getUpdateProgress"}}) {
        if ((needs & need) != 0 && !module.has(entry)) {
            notOffered(std::string("it has no entry ") + entry);
        }
    }
    if ((needs & kImage) != 0 && subject.image.empty()) {
        notChecked("give a firmware that may be installed: --image FILE");
    }
}

}  // namespace

Judgement judge(const Clause& clause, Module& module)
{
    try {
        requireNeeds(clause.needs, module);
        return {Verdict::kKept, clause.hold(module)};
    } catch (const Judgement& judgement) {
        return judgement;
    } catch (const std::exception& error) {
        const bool isGate = (clause.needs & kGate) != 0;  // what is behind it would count as clean
        return {isGate ? Verdict::kBroken : Verdict::kNotChecked, error.what()};
    }
}

}  // namespace quillon::kit
