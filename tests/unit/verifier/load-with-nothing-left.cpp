// load-with-nothing-left LIBRARY: whether LIBRARY can be loaded when neither a descriptor nor
// memory is left.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool useDescriptorsUp()
{
    constexpr rlimit kFew = {16, 16};
    if (setrlimit(RLIMIT_NOFILE, &kFew) != 0) {
        return false;
    }
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    return errno == EMFILE;
}

/// A sanitizer does not bear it, so only descriptors are used up there.
bool useMemoryUp()
{
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    constexpr rlimit kNone = {0, 0};
    if (setrlimit(RLIMIT_AS, &kNone) != 0) {
        return false;
    }
    for (std::size_t size = 1U << 20U; size >= 16; size -= size > 4096 ? size / 2 : 16) {
        while (const volatile void* taken = std::malloc(size)) {
            static_cast<void>(taken);
        }
    }
#endif
    return true;
}

void say(const char* text)
{
    static_cast<void>(!write(STDOUT_FILENO, text, std::strlen(text)));
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || !useDescriptorsUp() || !useMemoryUp()) {
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_LAZY);
    const bool found = library != nullptr && dlsym(library, "verifyFile") != nullptr;
    say(found ? "found\n" : dlerror());
    return found ? 0 : 1;
}
