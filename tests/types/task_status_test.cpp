// Experiment statuses as the service words them, mapped to the states the client acts on.
#include "korvalin_client/utils/task_status.hpp"

#include <sstream>

#include "support/testing.hpp"

namespace ts = kc::utils::task_status;

namespace {

std::string norm(const Value& v) { return ts::normalize_sub_process_status(v); }

TEST(TaskStatus, MapsSynonymsIgnoringCaseBlanksAndSeparatorsAndRefusesTheRest) {
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

  EXPECT_EQ(error_of<kc::ValueError>([] { norm(Value("xyz")); }),
            "unknown experiment status: \"xyz\"");
  for (const Value& v : {Value(3), Value(true), Value::array({"done"})}) {
    EXPECT_THROW(norm(v), kc::TypeError) << v.dump();
  }
}

}  // namespace
