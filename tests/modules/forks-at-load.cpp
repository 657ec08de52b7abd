// A child comes out of the loading of the test plug-in, and another one out of its unloading.

#include "modules/module-settings.h"

namespace {

struct Loading
{
    Loading() { quillon::test_module::forkChild(); }
    ~Loading() { quillon::test_module::forkChild(); }
} g_loading;

}  // namespace
