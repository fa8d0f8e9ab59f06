// A task delegate that records every call it gets, and checks that each
// arrives on the main thread.
#pragma once

#include "foundation/Dispatch.h"
#include "tasks/VTTask.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace brindle::test {

class TaskRecorder final : public VTTaskDelegate {
public:
    enum class Kind { Start, Percent, End };
    struct Event {
        Kind kind;
        double percent = 0.0;
        int32_t code = 0;
        VTTaskContext context;
    };

    bool respondsToVTTaskStart() const override { return true; }
    void VTTaskStart(const std::shared_ptr<VTTask>&, const VTTaskContext& context) override
    {
        record({Kind::Start, 0.0, 0, context});
    }
    bool respondsToVTTaskPercent() const override { return true; }
    void VTTaskPercent(const std::shared_ptr<VTTask>&, double percent, const VTTaskContext& context) override
    {
        record({Kind::Percent, percent, 0, context});
    }
    bool respondsToVTTaskEndWithResult() const override { return true; }
    void VTTaskEndWithResult(const std::shared_ptr<VTTask>&, int32_t code, const VTTaskContext& context) override
    {
        record({Kind::End, 0.0, code, context});
    }

    // Pumps the main queue until the end call has arrived.
    bool waitForEnd(int64_t milliseconds = 60000)
    {
        return runMainQueueUntil([this] { return !events.empty() && events.back().kind == Kind::End; }, milliseconds);
    }
    const Event& end() const { return events.back(); }
    std::vector<double> percentages() const
    {
        std::vector<double> out;
        for (const Event& event : events) {
            if (event.kind == Kind::Percent)
                out.push_back(event.percent);
        }
        return out;
    }

    std::vector<Event> events;

private:
    void record(Event event)
    {
        EXPECT_TRUE(isMainThread());
        events.push_back(std::move(event));
    }
};

}  // namespace brindle::test
