#include "jitter_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace kovra {
namespace {

constexpr Micros kMillisecond{1000};
constexpr Micros kFrame = JitterBuffer::kFrameTime;
constexpr std::uint32_t kStep = kPcmuFrameBytes;

class JitterBufferTest : public testing::Test {
 protected:
  // A packet of one value; packet n of an even stream has timestamp n * 160.
  void insert(std::uint16_t sequence, std::uint32_t timestamp, std::uint8_t value, Micros now,
              std::size_t size = kPcmuFrameBytes, std::uint32_t ssrc = 1) {
    const std::vector<std::uint8_t> payload(size, value);
    RtpPacket packet;
    packet.header.ssrc = ssrc;
    packet.header.sequence = sequence;
    packet.header.timestamp = timestamp;
    packet.payload = ByteView(payload);
    buffer_.insert(packet, now);
  }
  void insertNth(std::uint32_t n, Micros now) { insert(static_cast<std::uint16_t>(n), n * kStep, ValueOf(n), now); }
  static std::uint8_t ValueOf(std::uint32_t n) { return static_cast<std::uint8_t>(n % 250); }

  // The frames due until now, each as its value, or -1 where it is not all the same.
  std::vector<int> takeUntil(Micros now) {
    std::vector<int> values;
    JitterBuffer::Frame frame{};
    while (buffer_.take(now, frame)) {
      const bool even = std::all_of(frame.begin(), frame.end(), [&](std::uint8_t v) { return v == frame[0]; });
      values.push_back(even ? frame[0] : -1);
    }
    return values;
  }

  // Plays an even stream of packets first to last, each arriving so much after its time, and takes at each step.
  std::vector<int> stream(std::uint32_t first, std::uint32_t last, Micros delay = Micros(0)) {
    std::vector<int> played;
    for (std::uint32_t n = first; n <= last; ++n) {
      const Micros now = kFrame * n + delay;
      const std::vector<int> due = takeUntil(now);
      played.insert(played.end(), due.begin(), due.end());
      insertNth(n, now);
    }
    return played;
  }

  JitterBuffer buffer_;
};

constexpr int kSilent = kPcmuSilence;

TEST_F(JitterBufferTest, HasNothingBeforeTheFirstPacket) {
  JitterBuffer::Frame frame{};
  EXPECT_EQ(buffer_.nextDue(), std::nullopt);
  EXPECT_FALSE(buffer_.take(1000 * kFrame, frame));
}

TEST_F(JitterBufferTest, PlaysTheFirstPacketAfterTheInitialDelay) {
  insertNth(1, Micros(5000));
  ASSERT_EQ(buffer_.nextDue(), Micros(45000));
  EXPECT_TRUE(takeUntil(Micros(44999)).empty());
  EXPECT_EQ(takeUntil(Micros(45000)), std::vector<int>{1});
  EXPECT_EQ(buffer_.nextDue(), Micros(65000));
}

TEST_F(JitterBufferTest, PlaysAnEvenStreamFrameByFrame) {
  const std::vector<int> played = stream(0, 500);
  ASSERT_EQ(played.size(), 499u);
  for (std::size_t n = 0; n < played.size(); ++n) ASSERT_EQ(played[n], ValueOf(static_cast<std::uint32_t>(n)));
}

TEST_F(JitterBufferTest, PutsPacketsInOrder) {
  insertNth(0, Micros(0));
  insertNth(2, Micros(1000));
  insertNth(1, Micros(2000));
  EXPECT_EQ(takeUntil(Micros(80000)), (std::vector<int>{0, 1, 2}));
}

TEST_F(JitterBufferTest, MakesALossSilentAndShiftsNothing) {
  insertNth(0, Micros(0));
  insertNth(2, 2 * kFrame);
  EXPECT_EQ(takeUntil(Micros(40000)), std::vector<int>{0});
  EXPECT_EQ(takeUntil(Micros(60000)), std::vector<int>{kSilent});
  EXPECT_EQ(takeUntil(Micros(80000)), std::vector<int>{2});
}

TEST_F(JitterBufferTest, DropsDuplicatesAndReplays) {
  insertNth(0, Micros(0));
  insertNth(1, Micros(0));
  insert(1, 1 * kStep, 77, Micros(0));
  EXPECT_EQ(takeUntil(Micros(40000)), std::vector<int>{0});
  insertNth(0, Micros(41000));
  insertNth(0, Micros(41000));
  EXPECT_EQ(takeUntil(Micros(60000)), std::vector<int>{1});
}

TEST_F(JitterBufferTest, IsNotMovedByAFloodOfOldPackets) {
  stream(0, 100);
  const Micros now = 100 * kFrame + kMillisecond;
  for (int i = 0; i < 1000; ++i) insertNth(static_cast<std::uint32_t>(i % 98), now);
  EXPECT_EQ(takeUntil(101 * kFrame), std::vector<int>{99});
}

TEST_F(JitterBufferTest, DropsAnOvertakenPacketThatComesTooLate) {
  for (const std::uint32_t n : {0u, 2u}) insertNth(n, Micros(0));
  EXPECT_EQ(takeUntil(Micros(60000)), (std::vector<int>{0, kSilent}));
  insertNth(1, Micros(61000));
  insertNth(3, Micros(61000));
  EXPECT_EQ(takeUntil(Micros(100000)), (std::vector<int>{2, 3}));
}

TEST_F(JitterBufferTest, GoesOnOverTheWrapOfSequenceAndTimestamp) {
  std::vector<int> played;
  for (std::uint32_t n = 0; n < 10; ++n) {
    insert(static_cast<std::uint16_t>(65531 + n), 0u - 5 * kStep + n * kStep, ValueOf(n), kFrame * n);
    for (const int value : takeUntil(kFrame * n)) played.push_back(value);
  }
  EXPECT_EQ(played, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(JitterBufferTest, CutsLongPacketsAndJoinsShortOnes) {
  insert(0, 0, 1, Micros(0), 320);
  insert(1, 320, 2, Micros(0), 80);
  insert(2, 400, 2, Micros(0), 80);
  EXPECT_EQ(takeUntil(Micros(80000)), (std::vector<int>{1, 1, 2}));
}

TEST_F(JitterBufferTest, FillsWhatIsMissingOfAFrame) {
  insert(0, 0, 1, Micros(0), 80);
  JitterBuffer::Frame frame{};
  ASSERT_TRUE(buffer_.take(Micros(40000), frame));
  EXPECT_EQ(std::count(frame.begin(), frame.begin() + 80, 1), 80);
  EXPECT_EQ(std::count(frame.begin() + 80, frame.end(), kPcmuSilence), 80);
}

TEST_F(JitterBufferTest, IgnoresEmptyPackets) {
  insert(0, 0, 1, Micros(0), 0);
  EXPECT_EQ(buffer_.nextDue(), std::nullopt);
}

TEST_F(JitterBufferTest, LetsNoSampleWaitLongerThanTheLimit) {
  // A burst of half a second of audio: what is older than the limit goes.
  for (std::uint32_t n = 0; n < 25; ++n) insertNth(n, Micros(0));
  const std::vector<int> played = takeUntil(JitterBuffer::kMaxDelay);
  ASSERT_FALSE(played.empty());
  EXPECT_EQ(played.back(), kSilent);
  EXPECT_EQ(played[played.size() - 2], 24);
  for (std::size_t i = 1; i + 1 < played.size(); ++i) EXPECT_EQ(played[i], played[i - 1] + 1);
}

TEST_F(JitterBufferTest, KeepsTheLatestOfAPacketBeyondTheLimit) {
  std::vector<std::uint8_t> payload(4000);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i / 160);
  RtpPacket packet;
  packet.payload = ByteView(payload);
  buffer_.insert(packet, Micros(0));
  EXPECT_EQ(takeUntil(Micros(80000)), (std::vector<int>{22, 23, 24}));
}

TEST_F(JitterBufferTest, BeginsAnewWithAnotherSource) {
  stream(0, 10);
  insert(7, 99999, 200, Micros(1'000'000), kPcmuFrameBytes, 2);
  EXPECT_EQ(buffer_.nextDue(), Micros(1'040'000));
  EXPECT_EQ(takeUntil(Micros(1'040'000)), std::vector<int>{200});
}

TEST_F(JitterBufferTest, PausesWhenNothingComesAnyMore) {
  insertNth(0, Micros(0));
  const std::vector<int> played = takeUntil(Micros(40000));
  EXPECT_EQ(played, std::vector<int>{0});
  std::size_t silent = 0;
  for (Micros now = Micros(60000); now < Micros(2'000'000); now += kFrame) silent += takeUntil(now).size();
  EXPECT_EQ(silent, 10u);
  EXPECT_EQ(buffer_.nextDue(), std::nullopt);
}

TEST_F(JitterBufferTest, ResumesAfterAPauseWithTheInitialDelay) {
  stream(0, 10);
  for (Micros now = 11 * kFrame; now < 40 * kFrame; now += kFrame) takeUntil(now);
  ASSERT_EQ(buffer_.nextDue(), std::nullopt);
  insertNth(50, 50 * kFrame);
  EXPECT_EQ(buffer_.nextDue(), 52 * kFrame);
  EXPECT_EQ(takeUntil(52 * kFrame), std::vector<int>{50});
}

TEST_F(JitterBufferTest, ResumesAlsoWhenTheSendersTimestampsStoodStill) {
  stream(0, 10);
  for (Micros now = 11 * kFrame; now < 40 * kFrame; now += kFrame) takeUntil(now);
  insert(11, 11 * kStep, 111, 50 * kFrame);
  EXPECT_EQ(takeUntil(52 * kFrame), std::vector<int>{111});
}

TEST_F(JitterBufferTest, IsNotWokenByAnOldPacket) {
  stream(0, 10);
  for (Micros now = 11 * kFrame; now < 40 * kFrame; now += kFrame) takeUntil(now);
  insertNth(10, 50 * kFrame);
  EXPECT_EQ(buffer_.nextDue(), std::nullopt);
}

TEST_F(JitterBufferTest, BeginsAnewAtALeapForward) {
  stream(0, 10);
  insert(11, 1'000'000, 200, 11 * kFrame);
  EXPECT_EQ(buffer_.nextDue(), 13 * kFrame);
  EXPECT_EQ(takeUntil(13 * kFrame), std::vector<int>{200});
}

TEST_F(JitterBufferTest, BeginsAnewAtTheLongestLeapForward) {
  // As far as a timestamp can be ahead; as seen from the newest sample it lies in the past.
  insertNth(0, Micros(0));
  insert(1, 0x7FFFFFFF, 200, kFrame);
  EXPECT_EQ(takeUntil(3 * kFrame), std::vector<int>{200});
}

TEST_F(JitterBufferTest, FollowsALastingLeapBackward) {
  stream(0, 100);
  std::vector<int> played;
  for (std::uint32_t n = 101; n < 130; ++n) {
    for (const int value : takeUntil(kFrame * n)) played.push_back(value);
    insert(static_cast<std::uint16_t>(n), (n - 101) * kStep, 200, kFrame * n);
  }
  EXPECT_EQ(played.back(), 200);
  EXPECT_LE(std::count(played.begin(), played.end(), kSilent), 7);
}

TEST_F(JitterBufferTest, DoesNotFollowOneStrayPacketIntoThePast) {
  stream(0, 10);
  insert(11, 5'000'000, 200, 11 * kFrame);  // leaps away
  std::vector<int> played;
  for (std::uint32_t n = 12; n < 40; ++n) {
    insertNth(n, kFrame * n);
    for (const int value : takeUntil(kFrame * n)) played.push_back(value);
  }
  EXPECT_EQ(played.back(), ValueOf(37));
}

TEST_F(JitterBufferTest, IsNotMovedByLatePacketsBetweenTimelyOnes) {
  stream(0, 10);
  std::uint16_t sequence = 1000;
  for (std::uint32_t n = 11; n < 40; ++n) {
    const Micros now = kFrame * n;
    takeUntil(now);
    insert(sequence++, n * kStep, ValueOf(n), now);
    insert(sequence++, (n - 10) * kStep, 200, now + Micros(3000));
    ASSERT_EQ(*buffer_.nextDue() % kFrame, Micros(0));
  }
}

TEST_F(JitterBufferTest, PlaysOnWhileEveryOtherPacketIsLost) {
  std::size_t played = 0;
  for (std::uint32_t n = 0; n < 100; ++n) {
    played += takeUntil(kFrame * n).size();
    if (n % 2 == 0) insertNth(n, kFrame * n);
  }
  EXPECT_EQ(played, 98u);
}

TEST_F(JitterBufferTest, LetsNoSampleWaitLongerThanTheLimitWhileItsDelayGrows) {
  stream(0, 10);
  Micros now = 13 * kFrame;
  takeUntil(now);
  insertNth(11, now + kMillisecond);  // late: the next frame waits
  for (std::uint32_t n = 12; n < 30; ++n) insertNth(n, now + kMillisecond);
  const std::vector<int> played = takeUntil(now + kMillisecond + JitterBuffer::kMaxDelay - kFrame);
  ASSERT_FALSE(played.empty());
  EXPECT_EQ(played.back(), 29);
}

TEST_F(JitterBufferTest, GrowsItsDelayWhenPacketsComeLate) {
  stream(0, 50);
  // The way becomes 50 ms longer: more than the delay of 40 ms.
  const std::vector<int> step = stream(51, 70, Micros(50000));
  const std::vector<int> after = stream(71, 120, Micros(50000));
  EXPECT_GT(std::count(step.begin(), step.end(), kSilent), 0);
  EXPECT_EQ(std::count(after.begin(), after.end(), kSilent), 0);
}

TEST_F(JitterBufferTest, GrowsItsDelayWhenOnlyTheBeginningOfPacketsComesLate) {
  // Packets of 60 ms on a way that becomes 50 ms longer: their first third comes after it was due.
  constexpr std::size_t kLong = 3 * kPcmuFrameBytes;
  std::vector<int> before;
  std::vector<int> after;
  for (std::uint32_t n = 0; n < 120; ++n) {
    const Micros written = 3 * kFrame * n;
    const Micros arrival = written + (n < 20 ? Micros(0) : Micros(50000));
    std::vector<int>& played = n < 40 ? before : after;
    for (const int value : takeUntil(arrival)) played.push_back(value);
    insert(static_cast<std::uint16_t>(n), n * 3 * kStep, 1, arrival, kLong);
  }
  EXPECT_EQ(std::count(before.begin(), before.end(), 1) + std::count(before.begin(), before.end(), kSilent),
            static_cast<std::ptrdiff_t>(before.size()));
  EXPECT_GT(std::count(before.begin(), before.end(), kSilent), 0);
  EXPECT_EQ(std::count(after.begin(), after.end(), kSilent), 0);
}

TEST_F(JitterBufferTest, DoesNotTradeSamplesForADelayThatTheLimitForbids) {
  // Packets as long as the limit, a little late: there is no room for a longer delay.
  std::vector<int> played;
  for (std::uint32_t n = 0; n < 50; ++n) {
    const Micros arrival = 5 * kFrame * n + (n == 0 ? Micros(0) : Micros(5000));
    for (const int value : takeUntil(arrival)) played.push_back(value);
    insert(static_cast<std::uint16_t>(n), n * 5 * kStep, 1, arrival, 5 * kPcmuFrameBytes);
  }
  EXPECT_LE(std::count(played.begin(), played.end(), kSilent), 50) << "no more than what came late";
}

TEST_F(JitterBufferTest, GrowsByOneFrameForOneLatePacket) {
  stream(0, 50);
  EXPECT_EQ(takeUntil(51 * kFrame), std::vector<int>{49});
  EXPECT_EQ(takeUntil(52 * kFrame), std::vector<int>{50});
  EXPECT_EQ(takeUntil(53 * kFrame), std::vector<int>{kSilent});  // 51 is missing
  insertNth(51, 53 * kFrame + kMillisecond);
  insertNth(52, 53 * kFrame + kMillisecond);
  insertNth(53, 53 * kFrame + kMillisecond);
  EXPECT_EQ(takeUntil(54 * kFrame), std::vector<int>{kSilent});  // the delay is 60 ms from here on
  EXPECT_EQ(takeUntil(55 * kFrame), std::vector<int>{52});
  EXPECT_EQ(takeUntil(56 * kFrame), std::vector<int>{53});
}

TEST_F(JitterBufferTest, ShrinksItsDelayAfterACalmTime) {
  // The first packet is 50 ms later than the others: all of those wait 90 ms.
  insertNth(0, Micros(50000));
  std::vector<int> played;
  for (std::uint32_t n = 1; n < 600; ++n) {
    for (const int value : takeUntil(kFrame * n)) played.push_back(value);
    insertNth(n, kFrame * n);
  }
  const Micros lastArrival = kFrame * 599;
  Micros waited(0);
  while (takeUntil(lastArrival + waited) != std::vector<int>{ValueOf(599)}) {
    waited += kMillisecond;
    ASSERT_LT(waited, JitterBuffer::kMaxDelay);
  }
  EXPECT_LE(waited, JitterBuffer::kInitialDelay);
  EXPECT_GE(waited, kFrame);
}

TEST_F(JitterBufferTest, DoesNotShrinkSoonAfterALatePacket) {
  stream(0, 50);
  stream(51, 70, Micros(50000));
  // The way is short again: the packets wait long, but only after ten seconds is it believed.
  const std::vector<int> soon = stream(71, 71 + 450);
  for (std::size_t i = 10; i < soon.size(); ++i) ASSERT_EQ((soon[i - 1] + 1) % 250, soon[i] % 250) << i;
  const std::vector<int> later = stream(522, 522 + 300);
  bool skipped = false;
  for (std::size_t i = 1; i < later.size(); ++i) skipped = skipped || (later[i - 1] + 2) % 250 == later[i] % 250;
  EXPECT_TRUE(skipped);
}

TEST_F(JitterBufferTest, GivesALateCallerAllThatBecameDue) {
  for (std::uint32_t n = 0; n < 3; ++n) insertNth(n, Micros(0));
  EXPECT_EQ(takeUntil(Micros(80000)), (std::vector<int>{0, 1, 2}));
}

TEST_F(JitterBufferTest, GivesAVeryLateCallerNoMoreThanTheLimit) {
  insertNth(0, Micros(0));
  const std::vector<int> played = takeUntil(Micros(40000) + 9 * kFrame);
  EXPECT_EQ(played.size(), 5u);
  EXPECT_EQ(buffer_.nextDue(), Micros(40000) + 10 * kFrame);
}

TEST_F(JitterBufferTest, PausesForACallerWhoWasAwayForLong) {
  insertNth(0, Micros(0));
  EXPECT_TRUE(takeUntil(Micros(3'600'000'000)).empty());
  EXPECT_EQ(buffer_.nextDue(), std::nullopt);
  insertNth(1, Micros(3'600'000'000));
  EXPECT_EQ(takeUntil(Micros(3'600'040'000)), std::vector<int>{1});
}

}  // namespace
}  // namespace kovra
