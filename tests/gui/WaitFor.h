// Waiting in GoogleTest tests for what arrives through the event loop.
//
// Qt's QTRY_* macros report through Qt Test's own log and only return from
// the function on a timeout, which a GoogleTest test does not count as a
// failure. These wait the same way (processing events, never sleeping a
// fixed time) and fail the test through GoogleTest.
#pragma once

#include <QDeadlineTimer>
#include <QTest>

#include <gtest/gtest.h>

namespace brindle::test {

// Processes events until `condition` holds or `timeoutMs` passes; answers
// whether it held.
template <class Condition>
bool waitFor(Condition condition, int timeoutMs = 30000)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return condition();
        QTest::qWait(5);
    }
    return true;
}

}  // namespace brindle::test

// Fails (and ends) the test when `expression` does not become true in time.
#define BRINDLE_WAIT_TRUE(expression) \
    ASSERT_TRUE(::brindle::test::waitFor([&] { return bool(expression); })) << "waited for: " #expression
#define BRINDLE_WAIT_TRUE_FOR(expression, timeoutMs)                                    \
    ASSERT_TRUE(::brindle::test::waitFor([&] { return bool(expression); }, timeoutMs)) \
        << "waited for: " #expression
// Fails when `actual` does not come to equal `expected` in time.
#define BRINDLE_WAIT_EQ(actual, expected)                                                    \
    do {                                                                                     \
        ::brindle::test::waitFor([&] { return (actual) == (expected); });                   \
        ASSERT_EQ(actual, expected);                                                         \
    } while (false)
