#include <gtest/gtest.h>

#include <cstdlib>

#include "captured-stderr.h"
#include "platform/app-binary-manager.h"
#include "support/texts.h"

namespace {

using quillon::test::expectTexts;
using quillon::test::like;

bool called = false;

void onDownloaded(const std::string& /*identifier*/, int /*status*/, void* /*user_data*/)
{
    called = true;
}

TEST(NoPackageDownload, IsRefusedAndSaysOnceThatThereIsNone)
{
    unsetenv("JOURNAL_STREAM");
    const CapturedStderr captured;
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(onDownloaded, nullptr, "package"));
    EXPECT_FALSE(appbinaryManager::ABM_DownloadAppBinary(nullptr, nullptr, ""));
    EXPECT_FALSE(called);
    expectTexts(captured.lines(),
                {like("QUILLON-PLATFORM E app-binary-manager.cpp: *no package download*")});
}

}  // namespace
