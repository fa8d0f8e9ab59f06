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
// and `value` from frame `contentFrom` on.
class ScriptedSource final : public MixSource {
public:
    struct Answer {
        int64_t result = 0;
        bool flag = false;
        int16_t value = 0;
        int64_t contentFrom = 0;
        int16_t fill = 0;
    };

    explicit ScriptedSource(std::deque<Answer> answers, bool atEnd = false) : m_answers(std::move(answers)), m_atEnd(atEnd) {}

    void startMixWithContext(VTMixContext&) override { calls.push_back("start"); }
    void seekToTimestamp(int64_t timestamp, VTMixContext&) override { calls.push_back("seek" + std::to_string(timestamp)); }
    bool isEndOfSource(VTMixContext&) override { return m_atEnd; }
    void endMixWithContext(VTMixContext&) override { calls.push_back("end"); }
    int64_t nextSample(void* buffer, int64_t bufferCaps, bool* appendBefore, VTMixContext& context) override
    {
        calls.push_back("pull");
        if (m_answers.empty())
            return kEnd;
        const Answer answer = m_answers.front();
        m_answers.pop_front();
        auto* samples = static_cast<int16_t*>(buffer);
        const int64_t channels = context.numberOfChannel();
        for (int64_t frame = 0; frame < bufferCaps; ++frame)
            for (int64_t channel = 0; channel < channels; ++channel)
                samples[frame * channels + channel] = frame >= answer.contentFrom ? answer.value : answer.fill;
        if (answer.flag)
            *appendBefore = true;
        return answer.result;
    }

    std::vector<std::string> calls;

private:
    std::deque<ScriptedSource::Answer> m_answers;
    bool m_atEnd;
};

using Answer = ScriptedSource::Answer;

struct Pull {
    int64_t result;
    bool flag;
    std::vector<int16_t> left;  // channel 0 of every frame
};

// Pulls one buffer of `frames` stereo 16-bit frames (plus a guard) from a node.
Pull pullNode(VTMixOperation& node, VTMixContext& context, int64_t frames, bool flag = false)
{
    std::vector<int16_t> buffer(static_cast<size_t>((frames + 4) * 2), int16_t(-7));
    Pull pull{0, flag, {}};
    pull.result = node.nextSample(buffer.data(), frames, &pull.flag, context);
    for (int64_t frame = 0; frame < frames + 4; ++frame)
        pull.left.push_back(buffer[static_cast<size_t>(frame * 2)]);
    return pull;
}

std::shared_ptr<ScriptedSource> source(std::deque<Answer> answers)
{
    return std::make_shared<ScriptedSource>(std::move(answers));
}

}  // namespace

TEST(VTMixOperationTest, sixteenBitSamplesMixWithSoftSaturation)
{
    EXPECT_EQ(VTMixOperation::mixSample16(20000, 20000), 27793);
    EXPECT_EQ(VTMixOperation::mixSample16(-20000, -20000), -27793);
    EXPECT_EQ(VTMixOperation::mixSample16(-20000, 5000), -15000);
    EXPECT_EQ(VTMixOperation::mixSample16(0, 1234), 1234);
    EXPECT_EQ(VTMixOperation::mixSample16(32767, 32767), 32767);
    EXPECT_EQ(VTMixOperation::mixSample16(-32768, -32768), -32768);
    EXPECT_EQ(VTMixOperation::mixSample16(30000, 10000), 30845);

    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(0.5f, 0.5f), 0.75f);
    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(-0.5f, -0.5f), -0.75f);
    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(-0.5f, 0.25f), -0.25f);
    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(0.9f, 0.8f), 0.98f);
    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(1.5f, 0.0f), 1.0f);
    EXPECT_FLOAT_EQ(VTMixOperation::mixSampleFloat(-1.5f, 0.0f), -1.0f);
}

// Every pair of a grid of values (the extremes, values around zero and
// around the saturation points, factors of 32767 = 7 × 31 × 151 whose
// products divide exactly, and a spread between), mixed by the node in one
// long buffer, equals mixSample16 of that pair.
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

    class SamplesSource final : public MixSource {
    public:
        explicit SamplesSource(std::vector<int16_t> samples) : m_samples(std::move(samples)) {}
        void startMixWithContext(VTMixContext&) override {}
        void seekToTimestamp(int64_t, VTMixContext&) override {}
        bool isEndOfSource(VTMixContext&) override { return false; }
        void endMixWithContext(VTMixContext&) override {}
        int64_t nextSample(void* buffer, int64_t frames, bool*, VTMixContext&) override
        {
            std::copy_n(m_samples.begin(), frames * 2, static_cast<int16_t*>(buffer));
            return frames;
        }

    private:
        std::vector<int16_t> m_samples;
    };
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(std::make_shared<SamplesSource>(first), std::make_shared<SamplesSource>(second));
    std::vector<int16_t> mixed(first.size());
    ASSERT_EQ(node.nextSample(mixed.data(), frames, nullptr, context), frames);
    for (size_t i = 0; i < mixed.size(); ++i)
        ASSERT_EQ(mixed[i], VTMixOperation::mixSample16(first[i], second[i])) << first[i] << " with " << second[i];
}

TEST(VTMixOperationTest, twoFullSourcesAreMixedFrameByFrame)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{8, false, 20000}}), source({{8, false, 20000}}));
    const Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 8);
    EXPECT_FALSE(pull.flag);
    for (int frame = 0; frame < 8; ++frame)
        EXPECT_EQ(pull.left[frame], 27793) << frame;
    EXPECT_EQ(pull.left[8], -7);  // nothing written past the buffer
}

TEST(VTMixOperationTest, contentSpansIncludeTheirUpperEndAndPadsFollowTheFlags)
{
    VTMixContext context(48000, 2, 1);
    // Source 1: 5 frames from the start; source 2: its last 3 frames (pad 5).
    // Spans [0, 5] and [5, 8]: frames 0–4 take A, frame 5 mixes, 6–7 take B.
    VTMixOperation node(source({{5, false, 100, 0, 0}}), source({{3, true, 200, 0, 0}}));
    Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 8);
    EXPECT_FALSE(pull.flag);
    EXPECT_EQ(pull.left, (std::vector<int16_t>{100, 100, 100, 100, 100, 300, 200, 200, -7, -7, -7, -7}));

    // A first source with a full buffer forces both pads to 0: source 2's
    // span becomes [0, 3] although its content is at the end.
    VTMixOperation full(source({{8, false, 100}}), source({{3, true, 200, 0, 0}}));
    pull = pullNode(full, context, 8);
    EXPECT_EQ(pull.result, 8);
    EXPECT_EQ(pull.left, (std::vector<int16_t>{300, 300, 300, 300, 100, 100, 100, 100, -7, -7, -7, -7}));

    // A first source that starts late: its leading frames take B.
    VTMixOperation late(source({{2, true, 100, 0, 50}}), source({{8, false, 200}}));
    pull = pullNode(late, context, 8);
    EXPECT_EQ(pull.left, (std::vector<int16_t>{200, 200, 200, 200, 200, 200, 300, 300, -7, -7, -7, -7}));
}

TEST(VTMixOperationTest, aSilentFirstSourceLetsTheSecondWriteStraightThrough)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{0, false, 0}, {0, false, 0}}), source({{3, true, 400, 5}, {kEnd}}));
    Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 3);
    EXPECT_TRUE(pull.flag);  // the caller's flag, set by the second source
    EXPECT_EQ(pull.left[4], 0);
    EXPECT_EQ(pull.left[5], 400);

    pull = pullNode(node, context, 8);  // the second source has ended: A is copied
    EXPECT_EQ(pull.result, 0);
    EXPECT_EQ(pull.left[0], 0);
}

TEST(VTMixOperationTest, anEndedFirstSourceIsLeftOut)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{kEnd}}), source({{6, false, 321}}));
    const Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 6);
    EXPECT_EQ(pull.left[0], 321);
}

TEST(VTMixOperationTest, contentOnlyInTheFirstSourceTakesTheSecondSourcesFlag)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{3, true, 100, 5}, {3, true, 100, 5}}),
                        source({{0, false, 0}, {kEnd, true, 0}}));
    Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 3);
    EXPECT_FALSE(pull.flag);  // not the first source's flag
    EXPECT_EQ(pull.left[7], 100);
    pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 3);
    EXPECT_TRUE(pull.flag);
}

TEST(VTMixOperationTest, answersLargerThanTheBufferNeverWriteBeyondIt)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation node(source({{20, false, 10}}), source({{30, true, 20}}));
    const Pull pull = pullNode(node, context, 8);
    EXPECT_EQ(pull.result, 8);
    for (int frame = 0; frame < 8; ++frame)
        EXPECT_EQ(pull.left[frame], 30);
    for (int frame = 8; frame < 12; ++frame)
        EXPECT_EQ(pull.left[frame], -7);
}

TEST(VTMixOperationTest, missingSourcesAreSkippedOrEndTheNode)
{
    VTMixContext context(48000, 2, 1);
    VTMixOperation none(nullptr, nullptr);
    EXPECT_EQ(pullNode(none, context, 8).result, kEnd);
    EXPECT_TRUE(none.isEndOfSource(context));

    auto only = source({{8, false, 55}});
    VTMixOperation single(nullptr, only);
    EXPECT_EQ(pullNode(single, context, 8).left[0], 55);

    VTMixOperation ended(std::make_shared<ScriptedSource>(std::deque<Answer>{}, true),
                         std::make_shared<ScriptedSource>(std::deque<Answer>{}, false));
    EXPECT_FALSE(ended.isEndOfSource(context));
    VTMixOperation running(std::make_shared<ScriptedSource>(std::deque<Answer>{}, false), nullptr);
    EXPECT_FALSE(running.isEndOfSource(context));
    VTMixOperation finished(std::make_shared<ScriptedSource>(std::deque<Answer>{}, true), nullptr);
    EXPECT_TRUE(finished.isEndOfSource(context));
}

TEST(VTMixOperationTest, startSeekAndEndReachBothSourcesInOrder)
{
    VTMixContext context(48000, 2, 1);
    auto first = source({});
    auto second = source({});
    VTMixOperation node(first, second);
    node.startMixWithContext(context);
    node.seekToTimestamp(250, context);
    node.endMixWithContext(context);
    EXPECT_EQ(first->calls, (std::vector<std::string>{"start", "seek250", "end"}));
    EXPECT_EQ(second->calls, first->calls);
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
        EXPECT_TRUE(first->calls.empty());
    }
}

TEST(VTMixOperationTest, aBufferOfTheRequestedLengthIsZeroFilled)
{
    EXPECT_EQ(VTMixOperation::bufferWithLength(6), QByteArray(6, '\0'));
    EXPECT_TRUE(VTMixOperation::bufferWithLength(-1).isEmpty());
}
