#include "session_table.h"

#include <gtest/gtest.h>

#include <set>

namespace kovra {
namespace {

TEST(SessionTable, GivesEverySessionAnIdOfItsOwn) {
  SessionTable table;
  std::set<KOVRA_SESSION_ID> ids;
  for (int i = 0; i < 50; ++i) ids.insert(table.add({})->id);
  EXPECT_EQ(ids.size(), 50u);
  EXPECT_EQ(ids.count(0), 0u);
}

TEST(SessionTable, FindsASessionUntilItIsRemoved) {
  SessionTable table;
  const SessionHandle session = table.add({});
  EXPECT_EQ(table.find(session->id), session);
  EXPECT_EQ(table.remove(session->id), session);
  EXPECT_EQ(table.find(session->id), nullptr);
  EXPECT_EQ(table.remove(session->id), nullptr);
  EXPECT_TRUE(table.empty());
}

TEST(SessionTable, DoesNotGiveAnIdAgainAtOnce) {
  SessionTable table;
  const KOVRA_SESSION_ID id = table.remove(table.add({})->id)->id;
  EXPECT_NE(table.add({})->id, id);
}

TEST(SessionTable, HoldsSoManyAndNoMore) {
  SessionTable table;
  SessionHandle last;
  for (std::size_t i = 0; i < SessionTable::kMaxSessions; ++i) last = table.add({});
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(table.add({}), nullptr);
  table.remove(last->id);
  EXPECT_EQ(table.add({}), nullptr) << "somebody still holds the one that was removed";
  last.reset();
  EXPECT_NE(table.add({}), nullptr);
}

TEST(SessionTable, KnowsWhichKeyFramesAreWanted) {
  SessionTable table;
  const SessionHandle first = table.add({});
  const SessionHandle second = table.add({});
  second->videoType = 2;
  EXPECT_FALSE(table.wantsKeyFrame(1));
  second->wantsKeyFrame = true;
  EXPECT_FALSE(table.wantsKeyFrame(1));
  EXPECT_TRUE(table.wantsKeyFrame(2));
  first->wantsKeyFrame = true;
  EXPECT_TRUE(table.wantsKeyFrame(1));
  table.remove(first->id);
  EXPECT_FALSE(table.wantsKeyFrame(1));
}

TEST(SharedSession, BeginsWithVideoTypeOneAndAudioTypeZero) {
  const SharedSession session(1, {}, std::make_shared<std::atomic<std::size_t>>(0));
  EXPECT_EQ(session.videoType, 1);
  EXPECT_EQ(session.audioType, 0);
}

TEST(SharedSession, TakesOneOffer) {
  SharedSession session(1, {}, std::make_shared<std::atomic<std::size_t>>(0));
  EXPECT_TRUE(session.claimOffer());
  EXPECT_FALSE(session.claimOffer());
}

TEST(SharedSession, ComplainsABoundedNumberOfTimes) {
  SharedSession session(1, {}, std::make_shared<std::atomic<std::size_t>>(0));
  int complaints = 0;
  for (int i = 0; i < 1000; ++i) complaints += session.mayComplain() ? 1 : 0;
  EXPECT_GT(complaints, 0);
  EXPECT_LT(complaints, 10);
}

}  // namespace
}  // namespace kovra
