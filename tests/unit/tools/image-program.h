#pragma once

#include <json/json.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "support/texts.h"
#include "unit/tools/image-files.h"

namespace quillon::test {

/// A command that needs to be told where the image is to be.
constexpr char kBuild[] =
    "build --version 2.1 --payload payload --key $KEYS/image-key.bin "
    "--sign $KEYS/signing-key.pem ";

/// Runs quillon-image where there are an image tuner.bin of maker "a" and its payload.
class ImageProgram : public ImageFiles
{
protected:
    void SetUp() override
    {
        ImageFiles::SetUp();
        image = directory + "tuner.bin";
        writeFile(directory + "payload", "firmware");
        makeImage(image, "a", "2.0", "firmware");
    }

    int run(const std::string& arguments)
    {
        return shell("cd '" + directory + "' && KEYS='" QUILLON_TEST_KEYS "/a' OTHER='" +
                     QUILLON_TEST_KEYS "/b'; " IMAGE_PROGRAM " " + arguments);
    }

    /// Runs and expects success.
    void perform(const std::string& arguments) { ASSERT_EQ(run(arguments), 0) << arguments << err; }

    /// Runs and expects a refusal in a single line.
    void expectRefusal(const std::string& arguments, int code, const std::string& reason)
    {
        EXPECT_EQ(run(arguments), code) << arguments;
        EXPECT_EQ(out, "") << arguments;
        SCOPED_TRACE(arguments);
        expectText(err, like("quillon-image: *"));
        SCOPED_TRACE(arguments);
        expectText(err, like("*" + std::string(reason) + "*"));
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }

    Json::Value json() const
    {
        Json::Value value;
        std::istringstream source(out);
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), source, &value, nullptr))
            << out;
        EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 1) << out;
        return value;
    }

    std::string image;
};

}  // namespace quillon::test
