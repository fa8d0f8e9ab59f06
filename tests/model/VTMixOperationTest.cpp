#include "ModelFixtures.h"

#include "model/VTMixContext.h"
#include "model/VTMixOperation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <vector>

using brindle::MixSource;

namespace {

constexpr int64_t kEnd = MixSource::kEndOfSource;

// A source that answers from a script. Each answer fills the whole buffer
// with `fill` (also where it claims silence, so the node's span rules show)
// and `value` from frame `contentFrom` on, or copies `samples` when given.
class ScriptedSource final : public MixSource {
public:
    struct Answer {
        int64_t result = 0;
        bool flag = false;
        int16_t value = 0;
        int64_t contentFrom = 0;
        int16_t fill = 0;
        std::vector<int16_t> samples;
    };

    explicit ScriptedSource(std::deque<Answer> answers, bool atEnd = false) : m_answers(std::move(answers)), m_atEnd(atEnd) {}

    void startMixWithContext(VTMixContext&) override {}
    void seekToTimestamp(int64_t, VTMixContext&) override {}
    bool isEndOfSource(VTMixContext&) override { return m_atEnd; }
    void endMixWithContext(VTMixContext&) override {}
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override
    {
        ++pulls;
        if (m_answers.empty())
            return kEnd;
        const Answer answer = m_answers.front();
        m_answers.pop_front();
        auto* samples = static_cast<int16_t*>(buffer);
        const int64_t channels = context.numberOfChannel();
        for (int64_t i = 0; i < bufferCaps * channels; ++i)
            samples[i] = !answer.samples.empty() ? answer.samples[size_t(i)]
                                                 : i / channels >= answer.contentFrom ? answer.value : answer.fill;
        if (answer.flag)
            *appendBefore = true;
        return answer.result;
    }

    int pulls = 0;

private:
    std::deque<Answer> m_answers;
    bool m_atEnd;
};

using Answer = ScriptedSource::Answer;

std::shared_ptr<ScriptedSource> source(std::deque<Answer> answers, bool atEnd = false)
{
    return std::make_shared<ScriptedSource>(std::move(answers), atEnd);
}

}  // namespace

TEST(VTMixOperationTest, samplesOfOneSignMixWithSoftSaturationAndOthersAdd)
{
    const std::tuple<int32_t, int32_t, int16_t> pairs16[] = {
        {20000, 20000, 27793}, {-20000, -20000, -27793}, {-20000, 5000, -15000}, {0, 1234, 1234},
        {32767, 32767, 32767}, {-32768, -32768, -32768}, {30000, 10000, 30845}};
    for (auto [a, b, mixed] : pairs16)
        EXPECT_EQ(VTMixOperation::mixSample16(a, b), mixed) << a << " with " << b;
    const std::tuple<float, float, float> pairsFloat[] = {{0.5f, 0.5f, 0.75f}, {-0.5f, -0.5f, -0.75f},
                                                          {-0.5f, 0.25f, -0.25f}, {0.9f, 0.8f, 0.98f},
                                                          {1.5f, 0.0f, 1.0f}, {-1.5f, 0.0f, -1.0f}};
    for (auto [a, b, mixed] : pairsFloat)
        EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(a, b), mixed) << a << " with " << b;
}

// Every pair of a grid of values (the extremes, values around zero and
// around the saturation points, factors of 32767 = 7 × 31 × 151 whose
// products divide exactly, and a spread between), mixed by the node in one
// long buffer (its vectorised loop and the rest), equals mixSample16 of that pair.
TEST(VTMixOperationTest, everyPairOfSixteenBitValuesMixesAsTheSampleRuleSays)
{
    std::vector<int16_t> values{-32768, -32767, -32766, -16384, -2, -1, 0, 1, 2, 16383, 16384, 32766, 32767,
                                7,      31,     151,    217,    1057, 4681, -151, -217};
    for (int v = -32768; v < 32768; v += 499)
        values.push_back(int16_t(v));
    std::vector<int16_t> first;
    std::vector<int16_t> second;
    for (int16_t x : values) {
        for (int16_t y : values) {
            first.push_back(x);
            second.push_back(y);
        }
    }
    // An odd sample count, so the tail after whole vectors is mixed too.
    first.push_back(123);
    second.push_back(-77);
    const int64_t frames = int64_t(first.size() + 1) / 2;
    first.resize(size_t(frames * 2), 9);
    second.resize(size_t(frames * 2), 9);

    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{frames, false, 0, 0, 0, first}}), source({{frames, false, 0, 0, 0, second}}));
    std::vector<int16_t> mixed(first.size());
    ASSERT_EQ(node.nextSample(mixed.data(), frames, nullptr, context), frames);
    for (size_t i = 0; i < mixed.size(); ++i)
        ASSERT_EQ(mixed[i], VTMixOperation::mixSample16(first[i], second[i])) << first[i] << " with " << second[i];
}

// Pulls of 8 stereo frames (and 4 guard frames, -7) through a node over two
// scripted sources: the answer, the caller's flag and channel 0 of each frame.
TEST(VTMixOperationTest, theNodeMixesWhereBothSourcesHaveContentAndTakesTheOtherElsewhere)
{
    struct Pull {
        int64_t result;
        bool flag;
        std::vector<int16_t> left;
    };
    struct Case {
        const char* what;
        std::deque<Answer> first, second;
        std::vector<Pull> pulls;
    };
    const std::vector<int16_t> guard(4, -7);
    auto frames = [&](std::vector<int16_t> left) {
        left.insert(left.end(), guard.begin(), guard.end());
        return left;
    };
    const Case cases[] = {
        {"two full sources mix frame by frame", {{8, false, 20000}}, {{8, false, 20000}},
         {{8, false, frames(std::vector<int16_t>(8, 27793))}}},
        // Spans [0, 5] and [5, 8] include their upper end: 0–4 take A, 5 mixes, 6–7 take B.
        {"spans follow the flags", {{5, false, 100}}, {{3, true, 200}},
         {{8, false, frames({100, 100, 100, 100, 100, 300, 200, 200})}}},
        {"a full first source puts both spans at 0", {{8, false, 100}}, {{3, true, 200}},
         {{8, false, frames({300, 300, 300, 300, 100, 100, 100, 100})}}},
        {"a late first source's leading frames take B", {{2, true, 100, 0, 50}}, {{8, false, 200}},
         {{8, false, frames({200, 200, 200, 200, 200, 200, 300, 300})}}},
        // The second source writes straight into the caller's buffer and flag;
        // once it has ended (leaving 99s), the node answers silence and zeroes the buffer.
        {"a silent first source", {{0}, {0}}, {{3, true, 400, 5}, {kEnd, false, 99}},
         {{3, true, frames({0, 0, 0, 0, 0, 400, 400, 400})}, {0, false, frames(std::vector<int16_t>(8, 0))}}},
        {"an ended first source is left out", {{kEnd}}, {{6, false, 321}},
         {{6, false, frames(std::vector<int16_t>(8, 321))}}},
        // Content only in the first source: A is copied with the second source's flag.
        {"content only in the first source", {{3, true, 100, 5}, {3, true, 100, 5}}, {{0}, {kEnd, true}},
         {{3, false, frames({0, 0, 0, 0, 0, 100, 100, 100})}, {3, true, frames({0, 0, 0, 0, 0, 100, 100, 100})}}},
        {"answers beyond the buffer write only the buffer", {{20, false, 10}}, {{30, true, 20}},
         {{8, false, frames(std::vector<int16_t>(8, 30))}}},
    };
    VTMixContext context(48000, 2, 1);
    for (const Case& c : cases) {
        VTMixOperation node(source(c.first), source(c.second));
        for (size_t index = 0; index < c.pulls.size(); ++index) {
            SCOPED_TRACE(testing::Message() << c.what << ", pull " << index);
            std::vector<int16_t> buffer(12 * 2, int16_t(-7));
            bool flag = false;
            EXPECT_EQ(node.nextSample(buffer.data(), 8, &flag, context), c.pulls[index].result);
            EXPECT_EQ(flag, c.pulls[index].flag);
            std::vector<int16_t> left;
            for (size_t frame = 0; frame < 12; ++frame)
                left.push_back(buffer[frame * 2]);
            EXPECT_EQ(left, c.pulls[index].left);
        }
    }
}

TEST(VTMixOperationTest, missingSourcesAreSkippedOrEndTheNode)
{
    VTMixContext context(48000, 2, 1);
    std::vector<int16_t> buffer(16);
    bool flag = false;
    VTMixOperation none(nullptr, nullptr);
    EXPECT_EQ(none.nextSample(buffer.data(), 8, &flag, context), kEnd);
    EXPECT_TRUE(none.isEndOfSource(context));
    VTMixOperation single(nullptr, source({{8, false, 55}}));
    EXPECT_EQ(single.nextSample(buffer.data(), 8, &flag, context), 8);
    EXPECT_EQ(buffer[0], 55);
    // At its end only when every source present is.
    EXPECT_FALSE(VTMixOperation(source({}, true), source({}, false)).isEndOfSource(context));
    EXPECT_FALSE(VTMixOperation(source({}, false), nullptr).isEndOfSource(context));
    EXPECT_TRUE(VTMixOperation(source({}, true), nullptr).isEndOfSource(context));
}

TEST(VTMixOperationTest, onlySixteenBitAndFloatOutputIsMixed)
{
    for (int32_t format : {0, 2, 4, 7}) {
        VTMixContext context(48000, 2, format);
        auto first = source({{8, false, 1}});
        VTMixOperation node(first, source({{8, false, 1}}));
        brindle::test::LogCapture log;
        std::vector<uint8_t> buffer(8 * 2 * 8);
        bool flag = false;
        EXPECT_EQ(node.nextSample(buffer.data(), 8, &flag, context), kEnd) << format;
        EXPECT_TRUE(log.contains(QStringLiteral("Can't support sample format(%1) mix").arg(format)));
        EXPECT_EQ(first->pulls, 0);
    }
}
