// The timer thread on its own, and the Session's once-a-second status
// request with the host's notification.
#include "modbus_vukra.h"
#include "platform/platform.h"
#include "session/session.h"
#include "support/fake_card_device.h"
#include "support/session_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace vukra;
namespace platform = vukra::platform;

namespace {

void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// What the routines below see.
std::atomic<int> expiries{0};
std::atomic<platform::Timer*> seen_current{nullptr};
std::atomic<void*> seen_context{nullptr};
std::atomic<bool> routine_done{false};

void counting_routine() {
    platform::Timer* t = platform::timer_current();
    seen_current = t;
    seen_context = platform::timer_context(t);
    ++expiries;
}

void slow_routine() {
    sleep_ms(300);
    ++expiries;
    routine_done = true;
}

// Stops the timer; what its thread printed on the way out.
std::string stop_timer(platform::Timer* t) {
    testing::internal::CaptureStdout();
    platform::timer_stop(t);
    return testing::internal::GetCapturedStdout();
}

TEST(Timer, StartsUnarmedExpiresOncePerArmingAndNullAnswers) {
    EXPECT_EQ(platform::timer_remaining(nullptr), 0u);
    EXPECT_FALSE(platform::timer_is_armed(nullptr));
    EXPECT_EQ(platform::timer_current(), nullptr) << "not a timer thread";
    for (auto call : {platform::timer_arm, platform::timer_rearm, platform::timer_disarm, platform::timer_stop}) call(nullptr);

    int context = 0;
    platform::Timer* t = platform::timer_start(counting_routine, &context, 150);
    ASSERT_NE(t, nullptr);
    EXPECT_FALSE(platform::timer_is_armed(t));
    EXPECT_EQ(platform::timer_remaining(t), 150u) << "an unarmed timer has its whole period left";
    sleep_ms(400);
    EXPECT_EQ(expiries.load(), 0) << "started, not armed";

    platform::timer_arm(t); // one shot: the routine does not re-arm (a routine that does: SessionTimer)
    sleep_ms(50);
    EXPECT_TRUE(platform::timer_is_armed(t));
    const std::uint32_t left = platform::timer_remaining(t);
    EXPECT_LT(left, 150u);
    EXPECT_GT(left, 0u);
    sleep_ms(500);
    EXPECT_EQ(expiries.load(), 1);
    EXPECT_FALSE(platform::timer_is_armed(t));
    EXPECT_EQ(seen_current.load(), t);
    EXPECT_EQ(seen_context.load(), &context);

    platform::timer_arm(t);
    platform::timer_disarm(t);
    sleep_ms(300);
    EXPECT_EQ(expiries.load(), 1) << "disarmed before the expiry";
    EXPECT_EQ(stop_timer(t), "timer thread exit\r\n");
}

TEST(Timer, StopWaitsForARoutineInProgress) {
    platform::Timer* t = platform::timer_start(slow_routine, nullptr, 20);
    ASSERT_NE(t, nullptr);
    platform::timer_arm(t);
    sleep_ms(100); // the routine is sleeping now
    stop_timer(t);
    EXPECT_TRUE(routine_done.load()) << "the routine ran to its end before the stop returned";
    EXPECT_EQ(expiries.load(), 1);
}

using SessionTimer = test::SessionFixture;

std::atomic<int> callbacks{0};
std::atomic<modbus_vukra_session*> called_with{nullptr};
void count_callback(modbus_vukra_session* s) {
    called_with = s;
    ++callbacks;
}

std::atomic<int> close_result{99};
void closing_callback(modbus_vukra_session* s) {
    ++callbacks;
    close_result = modbus_vukra_op_session_close(s);
}

TEST_F(SessionTimer, NotifiesAboutOnceASecondOnlyAfterAMount) {
    test::FakeCardDevice device("");
    modbus_vukra_session* s = open(device.port());
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(modbus_vukra_op_session_callback(s, count_callback), 0);
    ASSERT_EQ(modbus_vukra_op_session_hwnd(s, reinterpret_cast<void*>(0x1234), 0x401), 0) << "stored, unused here";
    EXPECT_FALSE(platform::timer_is_armed(s->timer));
    sleep_ms(1500);
    EXPECT_EQ(callbacks.load(), 0) << "nothing before a mount";
    EXPECT_EQ(device.nulls(), 0);

    ASSERT_EQ(modbus_vukra_op_protected_mount(s), 0);
    sleep_ms(3300);
    EXPECT_GE(callbacks.load(), 2);
    EXPECT_LE(callbacks.load(), 4);
    EXPECT_EQ(called_with.load(), s);
    EXPECT_GE(device.nulls(), callbacks.load()) << "each notification follows a status request";
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("timer thread exit\r\n"), std::string::npos);
    const int after_close = device.nulls();
    sleep_ms(1300);
    EXPECT_EQ(device.nulls(), after_close) << "nothing after close";
}

TEST_F(SessionTimer, CallbackClosesItsOwnSession) {
    test::FakeCardDevice device("");
    modbus_vukra_session* s = open(device.port());
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(modbus_vukra_op_session_callback(s, closing_callback), 0);
    ASSERT_EQ(modbus_vukra_op_protected_mount(s), 0);
    testing::internal::CaptureStdout();
    for (int i = 0; i < 300 && close_result.load() == 99; ++i) sleep_ms(10);
    sleep_ms(1500);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(close_result.load(), 0);
    EXPECT_EQ(callbacks.load(), 1) << "the timer stopped with its session";
    EXPECT_NE(out.find("timer thread exit\r\n"), std::string::npos);
    EXPECT_FALSE(session::is_open());
    // The port is free again for a new session.
    modbus_vukra_session* again = open(device.port());
    ASSERT_NE(again, nullptr);
    close(again);
}

} // namespace
