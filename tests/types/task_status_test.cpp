#include "korvalin_client/utils/task_status.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

namespace ts = korvalin_client::utils::task_status;
using korvalin_client::Value;

namespace {

std::string norm(const Value& v) { return ts::normalize_sub_process_status(v); }

TEST(TaskStatus, MapsSynonymsIgnoringCaseBlanksAndSeparators) {
  const std::pair<std::string_view, const char*> table[] = {
      {ts::COMPLETE, "complete completed finished finish success succeeded successful done"},
      {ts::ERROR, "error failed failure fail errored"},
      {ts::CANCELED, "canceled cancelled cancel terminated aborted killed stopped"},
      {ts::TIMEOUT, "timeout timed_out timedout time_out expired"},
      {ts::RUNNING, "running run in_progress processing started executing"},
      {ts::QUEUED, "queued waiting submitted scheduled queue"},
      {ts::PENDING, "pending created new init initialized"},
  };
  for (const auto& [state, words] : table) {
    std::istringstream in(words);
    for (std::string w; in >> w;) EXPECT_EQ(norm(Value(w)), state) << w;
  }
  EXPECT_EQ(norm(Value("  Completed\t\n")), ts::COMPLETE);
  EXPECT_EQ(norm(Value("Timed Out")), ts::TIMEOUT);
  EXPECT_EQ(norm(Value("in-progress")), ts::RUNNING);
  EXPECT_EQ(norm(Value(nullptr)), "");
  EXPECT_EQ(norm(Value(" \t ")), "");
}

TEST(TaskStatus, RefusesUnknownTextAndOtherKinds) {
  try {
    norm(Value("xyz"));
    FAIL() << "expected a ValueError";
  } catch (const korvalin_client::ValueError& e) {
    EXPECT_STREQ(e.what(), "unknown experiment status: \"xyz\"");
  }
  for (const Value& v : {Value(3), Value(true), Value::array({"done"})}) {
    EXPECT_THROW(norm(v), korvalin_client::TypeError) << v.dump();
  }
}

TEST(TaskStatus, OnlyFinalStatesAreTerminal) {
  for (auto s : {ts::COMPLETE, ts::ERROR, ts::CANCELED, ts::TIMEOUT}) {
    EXPECT_TRUE(ts::is_terminal(s)) << s;
  }
  for (auto s : {ts::PENDING, ts::QUEUED, ts::RUNNING, std::string_view()}) {
    EXPECT_FALSE(ts::is_terminal(s)) << s;
  }
}

}  // namespace
