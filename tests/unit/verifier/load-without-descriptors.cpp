// load-without-descriptors LIBRARY: whether LIBRARY can be loaded when no descriptor is left.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdio>

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

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2 || !useDescriptorsUp()) {
        return 2;
    }
    void* library = dlopen(argv[1], RTLD_LAZY);
    const bool found = library != nullptr && dlsym(library, "verifyFile") != nullptr;
    static_cast<void>(std::puts(found ? "found" : dlerror()));
    return found ? 0 : 1;
}
