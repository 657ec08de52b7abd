// A whole stick out of a manifest: what it makes, and that it makes all of it or nothing.

#include "unit/tools/image-program.h"

namespace quillon::test {
namespace {

class ImageStick : public ImageProgram
{
protected:
    /// @param modules  the entries
    void putManifest(const std::string& modules, const std::string& more = "")
    {
        writeFile(directory + "stick.json",
                  R"({"output": "stick", "imageKey": ")" + keyPath("a", kImageKeyFile) +
                      R"(", "signingKey": ")" + keyPath("a", kSigningKeyFile) + "\"" + more +
                      R"(, "modules": [)" + modules + "]}");
    }

    void expectNothingButTheInput()
    {
        expectTexts(names(), {"payload", "stick.json", "tuner.bin"});
    }

    /// Expects that the manifest is refused and nothing is left behind.
    void expectRefused(const std::string& modules, int code, const std::string& reason,
                       const std::string& more = "")
    {
        putManifest(modules, more);
        expectRefusal("stick --manifest stick.json", code, reason);
        expectNothingButTheInput();
    }
};

constexpr char kTuner[] = R"({"name": "tuner", "version": "2.1", "payload": "payload"})";
constexpr char kPanel[] = R"({"name": "panel", "version": "7", "payload": "payload"})";

TEST_F(ImageStick, HasTheImageOfEveryModule)
{
    putManifest(kTuner + std::string(",") + kPanel);
    perform("stick --manifest stick.json");

    EXPECT_EQ(out,
              "stick/tuner.bin: version 2.1, 630 bytes\nstick/panel.bin: version 7, 630 bytes\n");
    EXPECT_EQ(modeOf(directory + "stick"), 0755U);
    EXPECT_EQ(modeOf(directory + "stick/tuner.bin"), 0644U);
    for (const char* path : {"stick/tuner.bin", "stick/panel.bin"}) {
        perform("verify --public $KEYS/signing-key.pub.pem " + std::string(path));
        perform("extract --key $KEYS/image-key.bin --output out " + std::string(path));
        EXPECT_EQ(take("out"), "firmware");
    }
    expectTexts(names(), {"payload", "stick", "stick.json", "tuner.bin"});
}

TEST_F(ImageStick, HasImagesForOneModelWhereTheManifestNamesIt)
{
    putManifest(R"({"name": "tuner", "version": "1", "payload": "payload", "counter": 7},
                   {"name": "panel", "version": "1", "payload": "payload", "counter": 4294967295,
                    "model": "TV 2025"})",
                R"(, "model": "TV 2024")");
    perform("stick --manifest stick.json");
    const std::string verify = "verify --public $KEYS/signing-key.pub.pem ";
    perform(verify + "--model 'TV 2024' --floor 7 stick/tuner.bin");
    perform(verify + "--model 'TV 2025' --floor 4294967295 stick/panel.bin");
    EXPECT_EQ(run(verify + "--model 'TV 2024' stick/panel.bin"), 5);
}

TEST_F(ImageStick, TakesTheKeysOfAnEntryInPlaceOfThoseForAll)
{
    putManifest(kTuner + std::string(R"(, {"name": "panel", "version": "1", "payload": "payload",
        "imageKey": ")") +
                keyPath("b", kImageKeyFile) + R"(", "signingKey": ")" +
                keyPath("b", kSigningKeyFile) + "\"}");
    perform("stick --manifest stick.json");
    perform("verify --public $KEYS/signing-key.pub.pem stick/tuner.bin");
    perform("verify --public $OTHER/signing-key.pub.pem stick/panel.bin");
    perform("info --key $OTHER/image-key.bin stick/panel.bin");
}

TEST_F(ImageStick, FindsFilesFromTheManifestsPlaceAndTheOutputFromTheCommandLines)
{
    putManifest(kTuner);
    std::filesystem::create_directory(directory + "elsewhere");
    ASSERT_EQ(shell("cd '" + directory +
                    "elsewhere'; " IMAGE_PROGRAM " stick --manifest ../stick.json --output mine/"),
              0)
        << err;
    EXPECT_EQ(out, "mine/tuner.bin: version 2.1, 630 bytes\n");
    EXPECT_TRUE(std::filesystem::exists(directory + "elsewhere/mine/tuner.bin"));
    EXPECT_FALSE(std::filesystem::exists(directory + "stick"));
}

TEST_F(ImageStick, TakesAnEmptyDirectorysPlaceAndNoOtherOnes)
{
    putManifest(kTuner);
    std::filesystem::create_directory(directory + "stick");
    perform("stick --manifest stick.json");

    const std::string before = readAll(directory + "stick/tuner.bin");
    expectRefusal("stick --manifest stick.json", 3,
                  "stick: exists and is not empty: give a new directory");
    EXPECT_TRUE(readAll(directory + "stick/tuner.bin") == before);
    expectRefusal("stick --manifest stick.json --output payload", 3, "payload: exists");
    EXPECT_EQ(readAll(directory + "payload"), "firmware");
    expectTexts(names(), {"payload", "stick", "stick.json", "tuner.bin"});
}

TEST_F(ImageStick, DoesNotTakeALinksPlace)
{
    putManifest(kTuner);
    std::filesystem::create_directory(directory + "stick");
    std::filesystem::create_symlink("stick", directory + "link");
    expectRefusal("stick --manifest stick.json --output link", 3,
                  "link: cannot be written: Not a directory: give a new directory, and copy its "
                  "images to the stick");
    expectTexts(names(), {"link", "payload", "stick", "stick.json", "tuner.bin"});
}

TEST_F(ImageStick, NamesTheEntryAndTheRemedyOfAnErrorAndMakesNothing)
{
    const std::string second = kTuner + std::string(",");
    const auto entry = [](const std::string& members) {
        return R"({"name": "panel", "version": "1", "payload": "payload", )" + members + "}";
    };
    expectRefused(second + R"({"name": "panel", "version": "1"})", 2,
                  "stick.json: modules[1] (panel): \"payload\" is missing: add it");
    expectRefused(R"({"version": "1", "payload": "payload"})", 2,
                  "stick.json: modules[0]: \"name\" is missing: add it");
    expectRefused(second + entry(R"("verison": "1")"), 2,
                  "modules[1] (panel): unknown member \"verison\"; there are counter, imageKey, "
                  "model, name, payload, signingKey, version");
    expectRefused(second + "7", 2, "modules[1]: not a JSON object");
    expectRefused(entry(R"("model": 7)"), 2, "\"model\" has to be a text that is not empty");
    expectRefused(entry(R"("counter": 7)"), 2, "\"counter\" needs a \"model\": add it");
    expectRefused(entry(R"("model": "TV")"), 2, "\"model\" needs the entry's \"counter\": add it");
    for (const char* counter : {"-1", "4294967296", "1.5", "\"7\"", "true"}) {
        expectRefused(entry(R"("model": "TV", "counter": )" + std::string(counter)), 2,
                      "\"counter\" has to be a number from 0 to 4294967295");
    }
    expectRefused(entry(R"("model": " TV", "counter": 1)"), 2, "(panel): a model has 1 to 64");
    expectRefused(R"({"name": "../x", "version": "1", "payload": "payload"})", 2,
                  "modules[0]: a module's name has 1 to 124 ASCII letters and digits");
    expectRefused(R"({"name": "x", "version": "\u00e4", "payload": "payload"})", 2,
                  "(x): a version has 1 to 63 printable ASCII characters");
    expectRefused(second + R"({"name": "Tuner", "version": "1", "payload": "payload"})", 2,
                  "modules[1] (Tuner): the same file name as in stick.json: modules[0] (tuner)");
    expectRefused(second + R"({"name": "x", "version": "1", "payload": "missing"})", 3,
                  "modules[1] (x): missing: cannot be read: No such file or directory");
    expectRefused(entry(R"("imageKey": "nowhere")"), 3, "modules[0] (panel): nowhere: cannot be");
    expectRefused(entry(R"("signingKey": "payload")"), 6, "(panel): payload: not a private key");
    expectRefused("", 2, "stick.json: \"modules\" has to be an array with an entry for each");
    expectRefused(kTuner, 2, "stick.json: unknown member \"stick\"; there are imageKey, model,",
                  R"(, "stick": "x")");
    expectRefused(kTuner, 2, "stick.json: not a JSON object: ", ", ");
    expectRefused(kTuner, 2, "stick.json: not a JSON object: ", R"(, "model": "a", "model": "b")");
    expectRefused(std::string(2000, '['), 2, "stick.json: not a JSON object: ");
    expectRefused(entry(R"("a\nb": 1)"), 2, R"((panel): unknown member "a*nb"; there are)");
    expectRefused(R"({"name": "a\nb"})", 2, "modules[0]: \"version\" is missing: add it");
    expectRefusal("stick --manifest nowhere.json", 3, "nowhere.json: cannot be read");
}

TEST_F(ImageStick, NeedsAnOutputInTheManifestOrOnTheCommandLine)
{
    writeFile(
        directory + "stick.json",
        "{\"imageKey\": \"x\", \"signingKey\": \"x\", \"modules\": [" + std::string(kTuner) + "]}");
    expectRefusal("stick --manifest stick.json", 2,
                  "stick.json: \"output\" is missing: add it, or give --output");
}

TEST_F(ImageStick, IsNotThereWhenALaterImageCannotBeMade)
{
    writeFile(directory + "large", "");
    std::filesystem::resize_file(directory + "large", 0x80000000U);
    putManifest(kTuner + std::string(R"(, {"name": "x", "version": "1", "payload": "large"})"));
    expectRefusal("stick --manifest stick.json", 4, "stick.json: modules[1] (x): large: too large");
    std::filesystem::remove(directory + "large");
    expectNothingButTheInput();
}

TEST_F(ImageStick, LeavesNothingBehindWhenItIsInterrupted)
{
    putManifest(kTuner);
    // The signal waits when the program starts, so it comes in the middle of the work.
    const std::string interrupted =
        "cd '" + directory +
        "'; exec env --block-signal=TERM sh -c 'kill $$; exec " IMAGE_PROGRAM " ";
    EXPECT_EQ(shell(interrupted + "stick --manifest stick.json'"), 3);
    expectText(err, like("*modules[0] (tuner): interrupted\n"));
    expectNothingButTheInput();

    EXPECT_EQ(shell(interrupted + "build --version 1 --payload payload --key " +
                    keyPath("a", kImageKeyFile) + " --sign " + keyPath("a", kSigningKeyFile) +
                    " --output new.bin'"),
              3);
    expectText(err, like("*interrupted\n"));
    expectNothingButTheInput();
}

}  // namespace
}  // namespace quillon::test
