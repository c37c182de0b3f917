// error_of<E>(f): the message of the E that `f` throws. A test fails when `f` throws nothing;
// exceptions of other types escape and fail it too.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace korvalin_client::testing {

template <class E, class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  ADD_FAILURE() << "no exception thrown";
  return "no error";
}

}  // namespace korvalin_client::testing
