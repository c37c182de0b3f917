#include "korvalin_client/utils/task_status.hpp"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <utility>

#include "support/error_of.hpp"

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
    // Only the four final states are terminal.
    EXPECT_EQ(ts::is_terminal(state), state == ts::COMPLETE || state == ts::ERROR ||
                                          state == ts::CANCELED || state == ts::TIMEOUT);
  }
  EXPECT_FALSE(ts::is_terminal(""));
  EXPECT_EQ(norm(Value("  Completed\t\n")), ts::COMPLETE);
  EXPECT_EQ(norm(Value("Timed Out")), ts::TIMEOUT);
  EXPECT_EQ(norm(Value("in-progress")), ts::RUNNING);
  EXPECT_EQ(norm(Value(nullptr)), "");
  EXPECT_EQ(norm(Value(" \t ")), "");
}

TEST(TaskStatus, RefusesUnknownTextAndOtherKinds) {
  EXPECT_EQ(korvalin_client::testing::error_of<korvalin_client::ValueError>(
                [] { norm(Value("xyz")); }),
            "unknown experiment status: \"xyz\"");
  for (const Value& v : {Value(3), Value(true), Value::array({"done"})}) {
    EXPECT_THROW(norm(v), korvalin_client::TypeError) << v.dump();
  }
}

}  // namespace
