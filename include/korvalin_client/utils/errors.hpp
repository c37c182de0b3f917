// Error types of korvalin_client.
//
// Every failure is an exception derived from korvalin_client::Error (itself a
// std::runtime_error), so a caller can catch one family or the specific kind. Retry loops
// catch std::exception; a user interruption is korvalin_client::Interrupted, which is
// deliberately not a std::exception and therefore passes straight through them.
#pragma once

#include <stdexcept>
#include <string>

namespace korvalin_client {

class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A failure of an operation: the service, a file, a state that does not allow the call.
class RuntimeError : public Error {
 public:
  using Error::Error;
};

// An argument or a record field of the wrong type; the message names it.
class TypeError : public Error {
 public:
  using Error::Error;
};

// An argument or a record field of the right type but an unacceptable value.
class ValueError : public Error {
 public:
  using Error::Error;
};

// A required key missing from a record; the message names the key.
class KeyError : public Error {
 public:
  using Error::Error;
};

// The caller may not do this: a right, or the organisation of what it names, is missing; the
// message says which.
class PermissionError : public Error {
 public:
  using Error::Error;
};

// The caller could not be identified: no token, or one the service does not know (any more).
class AuthenticationError : public Error {
 public:
  using Error::Error;
};

// Thrown by Env::sleep when the user interrupted the program (for example with Ctrl-C).
// Not derived from std::exception, so no retry loop swallows it.
struct Interrupted {
  std::string reason = "interrupted";
};

}  // namespace korvalin_client
