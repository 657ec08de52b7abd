#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <set>

#include "helpers/mount/policy.h"
#include "helpers/shared/failure.h"
#include "unit/helpers/mount/hostile-requests.h"

using namespace quillon::privileged;
using namespace quillon::test;

namespace {

constexpr int kMutations = 30000;

/// A second opinion, written down in another way than the policy itself.
bool isWellFormedMount(const std::string& text)
{
    static const std::regex shape(
        "-o ro,loop,nodev,nosuid /opt/usr/apps/appbinarymanager/[A-Za-z0-9]+\\.img "
        "/opt/usr/apps/appbinarymanager/emps/[A-Za-z0-9]+");
    return std::regex_match(text, shape);
}

bool isWellFormedUnmount(const std::string& text)
{
    static const std::regex shape("/opt/usr/apps/appbinarymanager/emps/[A-Za-z0-9]+");
    return std::regex_match(text, shape);
}

bool isWellFormedNode(const std::string& text)
{
    static const std::set<std::string> all = [] {
        std::set<std::string> texts;
        for (int number = 0; number < 250; ++number) {
            const std::string digits = std::to_string(number);
            texts.insert("-m 0660 -Z * /dev/loop" + digits + "  b 7 " + digits);
        }
        return texts;
    }();
    return all.count(text) == 1;
}

/// Changes a text in one to three places, the same way for the same seed.
class Mutator
{
public:
    explicit Mutator(unsigned seed) : random_(seed) {}

    std::string mutate(std::string text)
    {
        for (unsigned changes = 1 + below(3); changes > 0; --changes) {
            change(text);
        }
        return text;
    }

private:
    unsigned below(std::size_t limit) { return static_cast<unsigned>(random_() % limit); }

    char character()
    {
        static const std::string likely = " /.-*,0123456789abzAZ\n\t~\\;img";
        return below(4) == 0 ? static_cast<char>(below(256)) : likely[below(likely.size())];
    }

    std::string piece()
    {
        static const std::vector<std::string> pieces = {
            "..", "/", "../", "./",  "//",  ".img", "emps/",     "/dev/loop", "  b ",
            " ",  "0", "249", "250", ",rw", "-o ",  goodMount(), goodNode(),  goodUnmount()};
        return pieces[below(pieces.size())];
    }

    void change(std::string& text)
    {
        const std::size_t at = below(text.size() + 1);
        const std::size_t length = 1 + below(4);
        switch (below(6)) {
            case 0:
                text.insert(at, 1, character());
                break;
            case 1:
                text.insert(at, piece());
                break;
            case 2:
                text.erase(at, length);
                break;
            case 3:
                text.replace(at, length, std::string(length, character()));
                break;
            case 4:
                text.resize(at);
                break;
            default:
                text.insert(at, text.substr(below(text.size() + 1), length));
        }
    }

    std::mt19937 random_;
};

struct Counts
{
    int granted = 0;
    int refused = 0;
};

template <typename Judge>
Counts fuzz(const std::string& good, Judge judge, bool (*isWellFormed)(const std::string&))
{
    Counts counts;
    for (unsigned seed = 1; seed <= 3; ++seed) {
        Mutator mutator(seed);
        for (int i = 0; i < kMutations; ++i) {
            const std::string text = mutator.mutate(good);
            bool granted = true;
            try {
                judge(text);
            } catch (const quillon::Failure&) {
                granted = false;
            }
            EXPECT_EQ(granted, isWellFormed(text)) << "[" << text << "]";
            ++(granted ? counts.granted : counts.refused);
        }
    }
    return counts;
}

/// Both answers have to come up, else the fuzzing has tried nothing.
void expectBothAnswers(const Counts& counts)
{
    EXPECT_GT(counts.granted, 100);
    EXPECT_GT(counts.refused, kMutations);
}

}  // namespace

TEST(PolicyFuzz, GrantsNoMountButAWellFormedOne)
{
    expectBothAnswers(fuzz(goodMount(), &judgeMount, &isWellFormedMount));
}

TEST(PolicyFuzz, GrantsNoNodeButAWellFormedOne)
{
    expectBothAnswers(fuzz(goodNode(), &judgeNode, &isWellFormedNode));
}

TEST(PolicyFuzz, GrantsNoUnmountButAWellFormedOne)
{
    expectBothAnswers(fuzz(goodUnmount(), &judgeUnmount, &isWellFormedUnmount));
}
