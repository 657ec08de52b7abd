#include "helpers/mount/handle-request.h"

#include <new>

#include "helpers/mount/loop-devices.h"
#include "helpers/mount/mount-log.h"
#include "helpers/mount/package-mounts.h"
#include "helpers/mount/policy.h"
#include "helpers/shared/failure.h"

namespace quillon::privileged {

namespace {

void judgeAndDo(Kind kind, std::string_view text)
{
    switch (kind) {
        case Kind::kMount:
            return mountPackage(judgeMount(text));
        case Kind::kNode:
            return makeLoopNode(judgeNode(text));
        case Kind::kUnmount:
            return unmountPackage(judgeUnmount(text));
    }
    throw Failure(EINVAL, "no such kind of request");
}

const char* nameOf(Kind kind)
{
    switch (kind) {
        case Kind::kMount:
            return "mount";
        case Kind::kNode:
            return "node";
        case Kind::kUnmount:
            return "umount";
    }
    return "?";
}

}  // namespace

int handleRequest(Kind kind, std::string_view text)
{
    const int length = static_cast<int>(text.size());
    try {
        judgeAndDo(kind, text);
        PRIVILEGED_LOGI("%s [%.*s]: done", nameOf(kind), length, text.data());
        return 0;
    } catch (const Failure& failure) {
        PRIVILEGED_LOGE("%s [%.*s] refused: %s", nameOf(kind), length, text.data(), failure.what());
        return failure.code();
    } catch (const std::bad_alloc&) {
        PRIVILEGED_LOGE("%s refused: out of memory", nameOf(kind));
        return ENOMEM;
    }
}

}  // namespace quillon::privileged
