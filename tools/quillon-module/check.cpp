#include "tools/quillon-module/check.h"

#include <fnmatch.h>
#include <json/json.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "tools/quillon-module/clause-process.h"
#include "tools/quillon-module/confined.h"
#include "tools/shared/outside-text.h"
#include "tools/shared/text-table.h"

namespace quillon::kit {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongestText = 400;

struct Line
{
    const Clause* clause;
    Outcome outcome;
};

/// One module with what became of its clauses.
struct Findings
{
    Subject subject;
    std::vector<Line> lines;

    int count(Verdict verdict) const
    {
        return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const Line& line) {
            return line.outcome.judgement.verdict == verdict;
        }));
    }
};

std::vector<const Clause*> selected(const CheckRequest& request)
{
    std::vector<const Clause*> clauses;
    for (const Clause& clause : allClauses()) {
        const bool isWanted =
            request.filter.empty() || fnmatch(request.filter.c_str(), clause.name, 0) == 0;
        if (clause.level <= request.level && isWanted) {
            clauses.push_back(&clause);
        }
    }
    if (clauses.empty()) {
        throw Failure(kExitUsage, "no clause is like \"" + printable(request.filter) +
                                      "\" (see quillon-module check --list)");
    }
    return clauses;
}

std::string readable(const std::string& path)
{
    if (!fs::is_regular_file(path) || !std::ifstream(path).is_open()) {
        throw Failure(kExitFile, path + " cannot be read");
    }
    return fs::absolute(path);
}

std::vector<Subject> subjectsOf(const CheckRequest& request)
{
    if (request.files.size() > 1 && !(request.image + request.info).empty()) {
        throw Failure(kExitUsage,
                      "--info and --image describe one module: give one FILE with them");
    }
    std::vector<Subject> subjects;
    for (const std::string& file : request.files) {
        Subject subject;
        subject.file = readable(file);
        subject.image = request.image.empty() ? "" : readable(request.image);
        subject.info = request.info.empty() ? "" : readable(request.info);
        subject.longest = std::chrono::milliseconds(static_cast<long>(request.seconds * 1000));
        subjects.push_back(subject);
    }
    for (Subject& subject : subjects) {
        for (const Subject& other : subjects) {
            if (other.file != subject.file && !other.isProcess()) {
                subject.others.push_back(other.file);
            }
        }
    }
    return subjects;
}

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

/// @return the lines for people
std::string linesOf(const Line& line)
{
    const Judgement& judgement = line.outcome.judgement;
    const std::string word = wordOf(judgement.verdict);
    std::ostringstream text;
    text << "  " << (judgement.verdict == Verdict::kBroken ? upper(word) : word)
         << std::string(13 - word.size(), ' ') << line.clause->level << "  " << line.clause->name
         << ": " << line.clause->sentence << '\n';
    if (!judgement.text.empty()) {
        text << "      " << cut(printable(judgement.text), kLongestText) << '\n';
    }
    return text.str();
}

std::string sumOf(const Findings& findings)
{
    std::ostringstream text;
    text << findings.subject.file << ": " << findings.count(Verdict::kKept) << " kept, "
         << findings.count(Verdict::kBroken) << " broken, " << findings.count(Verdict::kNotOffered)
         << " not offered, " << findings.count(Verdict::kNotChecked) << " not checked\n";
    return text.str();
}

bool isShown(const CheckRequest& request, const Line& line)
{
    return !request.onlyFailed || line.outcome.judgement.verdict == Verdict::kBroken;
}

/// Judges the clauses in their order and shows each as it comes.
Findings findingsOf(const Subject& subject, const CheckRequest& request)
{
    const bool talks = !request.json;
    Findings findings{subject, {}};
    std::string closed;  // the gate that is
    for (const Clause* clause : selected(request)) {
        const bool isGate = (clause->needs & kGate) != 0;
        Outcome outcome;
        if (!closed.empty()) {
            outcome.judgement = {Verdict::kNotChecked, "while \"" + closed + "\" is broken"};
        } else {
            outcome =
                request.inProcess ? judgeHere(*clause, subject) : judgeApart(*clause, subject);
        }
        if (isGate && outcome.judgement.verdict == Verdict::kBroken) {
            closed = clause->name;
        }
        findings.lines.push_back({clause, outcome});
        if (talks && isShown(request, findings.lines.back())) {
            std::cout << linesOf(findings.lines.back()) << std::flush;
        }
    }
    if (talks) {
        std::cout << sumOf(findings) << std::flush;
    }
    return findings;
}

Json::Value documentOf(const Findings& findings, const CheckRequest& request)
{
    Json::Value module;
    module["file"] = printable(findings.subject.file);
    module["name"] = printable(findings.subject.name());
    module["kept"] = findings.count(Verdict::kKept);
    module["broken"] = findings.count(Verdict::kBroken);
    module["notOffered"] = findings.count(Verdict::kNotOffered);
    module["notChecked"] = findings.count(Verdict::kNotChecked);
    module["clauses"] = Json::Value(Json::arrayValue);
    static const std::map<Verdict, const char*> kWords = {{Verdict::kKept, "kept"},
                                                          {Verdict::kBroken, "broken"},
                                                          {Verdict::kNotOffered, "notOffered"},
                                                          {Verdict::kNotChecked, "notChecked"}};
    for (const Line& line : findings.lines) {
        if (!isShown(request, line)) {
            continue;
        }
        Json::Value clause;
        clause["clause"] = line.clause->name;
        clause["level"] = line.clause->level;
        clause["sentence"] = line.clause->sentence;
        clause["verdict"] = kWords.at(line.outcome.judgement.verdict);
        clause["milliseconds"] = static_cast<Json::Int64>(line.outcome.duration.count());
        if (!line.outcome.judgement.text.empty()) {
            clause["text"] = printable(line.outcome.judgement.text);
        }
        module["clauses"].append(clause);
    }
    return module;
}

/// Everything, for somebody who has the module but not this machine.
void writeLog(const std::string& path, const std::vector<Findings>& all)
{
    std::ofstream log(path);
    utsname system = {};
    uname(&system);
    const std::time_t now = std::time(nullptr);
    char time[32] = {};
    tm parts = {};
    static_cast<void>(
        std::strftime(time, sizeof(time), "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&now, &parts)));
    log << "quillon-module " QUILLON_VERSION ", " << time << ", " << system.sysname << ' '
        << system.release << ' ' << system.machine << '\n';
    for (const Findings& findings : all) {
        std::error_code gone;
        const auto size = fs::file_size(findings.subject.file, gone);
        log << '\n' << findings.subject.file << ", " << (gone ? 0 : size) << " bytes\n";
        for (const Line& line : findings.lines) {
            log << linesOf(line) << "      " << line.outcome.duration.count() << " ms\n";
            std::istringstream output(line.outcome.output);
            for (std::string text; std::getline(output, text);) {
                log << "      | " << printable(text) << '\n';
            }
        }
        log << sumOf(findings);
    }
    if (!log.flush()) {
        throw Failure(kExitFile, path + " cannot be written");
    }
}

}  // namespace

ExitCode check(const CheckRequest& request)
{
    if (request.files.empty()) {
        throw Failure(kExitUsage, "check: a module's FILE is required (see quillon-module --help)");
    }
    const std::vector<Subject> subjects = subjectsOf(request);
    if (request.confined) {
        return checkConfined(request);
    }
    std::vector<Findings> all;
    all.reserve(subjects.size());
    for (const Subject& subject : subjects) {
        all.push_back(findingsOf(subject, request));
    }
    if (request.json) {
        Json::Value document;
        document["modules"] = Json::Value(Json::arrayValue);
        for (const Findings& findings : all) {
            document["modules"].append(documentOf(findings, request));
        }
        std::cout << document << std::endl;
    }
    if (!request.log.empty()) {
        writeLog(request.log, all);
    }
    const bool isBroken = std::any_of(all.begin(), all.end(), [](const Findings& findings) {
        return findings.count(Verdict::kBroken) > 0;
    });
    return isBroken ? kExitBroken : kExitSuccess;
}

ExitCode listClauses(const CheckRequest& request)
{
    std::vector<TableRow> rows;
    Json::Value document(Json::arrayValue);
    for (const Clause* clause : selected(request)) {
        rows.push_back({std::to_string(clause->level), clause->name, clause->sentence});
        Json::Value object;
        object["clause"] = clause->name;
        object["level"] = clause->level;
        object["sentence"] = clause->sentence;
        document.append(object);
    }
    if (request.json) {
        std::cout << document << std::endl;
        return kExitSuccess;
    }
    for (const std::string& line : aligned(rows)) {
        std::cout << line << '\n';
    }
    return kExitSuccess;
}

}  // namespace quillon::kit
