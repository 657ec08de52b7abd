// How a module is built: what the dynamic linker makes of it.

#include <elf.h>
#include <fcntl.h>
#include <grp.h>
#include <link.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <vector>

#include "base/fd.h"
#include "tools/quillon-module/clause-functions.h"
#include "tools/quillon-module/module.h"
#include "tools/shared/services-user.h"

namespace quillon::kit {

namespace {

using Header = ElfW(Ehdr);
using ProgramHeader = ElfW(Phdr);
using Dynamic = ElfW(Dyn);
using Symbol = ElfW(Sym);

constexpr uid_t kNobody = 65534;
constexpr std::size_t kMostNames = 5;

Header headerOf(const std::string& path)
{
    Header header = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(&header), sizeof(header));
    return header;
}

/// The first few; those of C before those of C++, which a template brings unasked.
std::string namesOf(const std::set<std::string>& all)
{
    std::vector<std::string> names(all.begin(), all.end());
    std::stable_partition(names.begin(), names.end(),
                          [](const std::string& name) { return name.rfind("_Z", 0) != 0; });
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), kMostNames); ++i) {
        text += (text.empty() ? "" : ", ") + names[i];
    }
    return names.size() <= kMostNames
               ? text
               : text + " and " + std::to_string(names.size() - kMostNames) + " more";
}

/// The dynamic section of a library that is loaded.
class DynamicSection
{
public:
    explicit DynamicSection(void* library)
    {
        if (dlinfo(library, RTLD_DI_LINKMAP, &map_) != 0) {
            notChecked(dlerror());
        }
    }

    bool has(int tag) const { return find(tag) != nullptr; }
    ElfW(Addr) value(int tag) const { return has(tag) ? find(tag)->d_un.d_val : 0; }

    /// The names of what the library shows to others.
    std::set<std::string> symbols() const
    {
        std::set<std::string> names;
        const auto* const table = at<Symbol>(DT_SYMTAB);
        const auto* const texts = at<char>(DT_STRTAB);
        for (std::size_t i = 1; i < count(); ++i) {
            const Symbol& symbol = table[i];
            const unsigned int visibility = symbol.st_other & 3U;
            const unsigned int binding = symbol.st_info >> 4U;
            if (symbol.st_shndx != SHN_UNDEF && binding != STB_LOCAL &&
                (visibility == STV_DEFAULT || visibility == STV_PROTECTED)) {
                names.insert(texts + symbol.st_name);
            }
        }
        return names;
    }

private:
    const Dynamic* find(int tag) const
    {
        const Dynamic* entry = map_->l_ld;
        while (entry->d_tag != DT_NULL && entry->d_tag != tag) {
            ++entry;
        }
        return entry->d_tag == tag ? entry : nullptr;
    }

    /// The linker has put addresses there, but not on every processor.
    template <typename T>
    const T* at(int tag) const
    {
        const ElfW(Addr) place = value(tag);
        return reinterpret_cast<const T*>(place < map_->l_addr ? place + map_->l_addr : place);
    }

    /// A table of symbols has no size of its own; the hash table over it tells.
    std::size_t count() const
    {
        if (has(DT_HASH)) {
            return at<std::uint32_t>(DT_HASH)[1];
        }
        if (!has(DT_GNU_HASH)) {
            return 0;
        }
        const auto* const hash = at<std::uint32_t>(DT_GNU_HASH);
        const std::uint32_t first = hash[1];
        const auto* const buckets = hash + 4 + hash[2] * (sizeof(ElfW(Addr)) / sizeof(*hash));
        const auto* const chain = buckets + hash[0];
        std::uint32_t last = hash[0] == 0 ? 0 : *std::max_element(buckets, buckets + hash[0]);
        if (last < first) {
            return first;
        }
        while ((chain[last - first] & 1U) == 0) {
            ++last;
        }
        return last + 1;
    }

    link_map* map_ = nullptr;
};

/// @return the entry's name as C++ writes it into a library, when the library has it so
std::string mangledNameOf(const std::set<std::string>& symbols, const std::string& entry)
{
    const std::string begin = "_Z" + std::to_string(entry.size()) + entry;
    const auto found = symbols.lower_bound(begin);
    return found != symbols.end() && found->rfind(begin, 0) == 0 ? *found : "";
}

bool isOfLinker(const std::string& name)
{
    static const std::set<std::string> kNames = {"_init",      "_fini",       "_edata",
                                                 "_end",       "__bss_start", "__bss_start__",
                                                 "_bss_end__", "__bss_end__", "__end__"};
    return kNames.count(name) != 0;
}

}  // namespace

std::string holdFile(Module& module)
{
    const std::string& path = module.subject().file;
    struct stat status = {};
    require(stat(path.c_str(), &status) == 0,
            std::string("cannot be found: ") + std::strerror(errno));
    require(S_ISREG(status.st_mode), "it is no regular file");
    const std::filesystem::path name(path);
    require(name.extension() == ".so" && !name.stem().empty(),
            "the service loads files only whose name ends in .so");
    const Header header = headerOf(path);
    require(std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0 && header.e_type == ET_DYN,
            "it is no shared library: link it with -shared");
    return "";
}

std::string holdArchitecture(Module& module)
{
    const Header own = headerOf("/proc/self/exe");
    const Header its = headerOf(module.subject().file);
    const bool isSame = its.e_machine == own.e_machine &&
                        its.e_ident[EI_CLASS] == own.e_ident[EI_CLASS] &&
                        its.e_ident[EI_DATA] == own.e_ident[EI_DATA];
    require(isSame, "it is built for ELF machine " + std::to_string(its.e_machine) +
                        ", this program for " + std::to_string(own.e_machine) +
                        ": check it on the device or under emulation");
    return "";
}

std::string holdLibraries(Module& module)
{
    const std::string trouble = module.load(module.subject().file);
    require(trouble.find("cannot open shared object file") == std::string::npos, trouble);
    return "";
}

std::string holdSymbols(Module& module)
{
    const std::string trouble = module.load(module.subject().file);
    require(trouble.empty(), trouble + ": link it with -Wl,-z,defs to see that when it is built");
    return "";
}

std::string holdEntries(Module& module)
{
    const std::set<std::string> symbols = DynamicSection(module.library()).symbols();
    std::string faults;
    for (std::size_t i = 0; i < kEntries.size(); ++i) {
        const std::string entry = kEntries[i];
        const std::string mangled = mangledNameOf(symbols, entry);
        if (module.has(kEntries[i]) || (i >= kRequiredEntries && mangled.empty())) {
            continue;
        }
        faults += (faults.empty() ? "" : "; ") + entry;
        if (!mangled.empty()) {
            faults += " is there as " + mangled +
                      ", its name in C++: include fw-update-plugin.h where it is defined";
        } else {
            faults += symbols.count(entry) != 0 ? " is null" : " is missing";
        }
    }
    require(faults.empty(), faults);
    return "";
}

std::string holdExecutableMemory(Module& module)
{
    std::ifstream file(module.subject().file, std::ios::binary);
    const Header header = headerOf(module.subject().file);
    require(header.e_phentsize == sizeof(ProgramHeader), "it is no shared library of this machine");
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    bool tells = false;
    for (int i = 0; i < header.e_phnum; ++i) {
        ProgramHeader part = {};
        file.read(reinterpret_cast<char*>(&part), sizeof(part));
        if (part.p_type == PT_GNU_STACK) {
            tells = true;
            require((part.p_flags & PF_X) == 0,
                    "it makes the stack executable, which the service's unit forbids: "
                    "link it with -Wl,-z,noexecstack");
        }
    }
    require(tells,
            "it does not say whether its stack is executable: link it with "
            "-Wl,-z,noexecstack");
    const DynamicSection dynamic(module.library());
    require(!dynamic.has(DT_TEXTREL) && (dynamic.value(DT_FLAGS) & DF_TEXTREL) == 0,
            "its code is changed when it is loaded, which the service's unit forbids: "
            "compile it with -fPIC");
    return "";
}

std::string holdUnprivileged(Module& module)
{
    const std::string& path = module.subject().file;
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string who = "as " + nameOfUser(geteuid());
    if (geteuid() == 0) {
        const uid_t user = servicesUser() != 0 ? servicesUser() : kNobody;
        who = "as " + nameOfUser(user);
        const passwd* const entry = getpwuid(user);
        const gid_t group = entry != nullptr ? entry->pw_gid : kNobody;
        const bool hasGroups =
            entry != nullptr ? initgroups(entry->pw_name, group) == 0 : setgroups(0, nullptr) == 0;
        if (!hasGroups || setresgid(group, group, group) != 0 || setresuid(user, user, user) != 0) {
            notChecked("this process cannot become " + nameOfUser(user));
        }
    }
    std::string trouble = module.load(path);
    // Where it lies here says nothing of where it will lie on the device.
    if (!trouble.empty() && access(path.c_str(), F_OK) != 0) {
        trouble = module.load("/proc/self/fd/" + std::to_string(file.get()));
    }
    require(trouble.empty(), who + ": " + trouble);
    static_cast<void>(module.version());
    return who;
}

std::string holdExports(Module& module)
{
    std::set<std::string> others = DynamicSection(module.library()).symbols();
    for (const char* entry : kEntries) {
        others.erase(entry);
    }
    for (auto name = others.begin(); name != others.end();) {
        name = isOfLinker(*name) ? others.erase(name) : std::next(name);
    }
    require(others.empty(), "another module may have the same: " + namesOf(others) +
                                "; link it with a version script, as the template does");
    return "";
}

std::string holdUnloading(Module& module)
{
    module.library();
    static_cast<void>(module.version());
    module.unload();
    return "";
}

}  // namespace quillon::kit
