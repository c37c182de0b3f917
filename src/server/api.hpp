// What the server does for a request, decided from its request line, its headers and its body:
// which endpoint it names, who asks, and what is answered. No HTTP library type appears here;
// the connection (connection.cpp) moves the bytes and asks this file what to do with them.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "http_codec.hpp"
#include "korvalin_client/service/engine.hpp"

namespace korvalin_client::server {

// Longer request targets are refused before anything else looks at them.
inline constexpr std::size_t kMaxTarget = 1024;

// An endpoint, known from the request line alone.
struct Route {
  enum class Kind { health, service, operation, put_object, get_object };
  Kind kind = Kind::health;
  com::Operation op{};   // operation
  std::string object{};  // get_object: "<bucket>/<object>", decoded
  std::string name{};    // put_object: the query's fields, decoded
  std::string category{};
  std::string format{};

  bool needs_token() const { return kind != Kind::health; }
  // Whether the endpoint reads a body (the others refuse one).
  bool takes_body() const { return kind == Kind::operation || kind == Kind::put_object; }
};

// The endpoint of a request line, or why there is none: 404 (no such endpoint), 414 (a target
// over kMaxTarget), 400 (a malformed escape).
struct Routed {
  std::optional<Route> route;
  ErrorAnswer refusal;
};
Routed route_of(std::string_view method, std::string_view target);

// The headers an answer depends on.
struct RequestHead {
  std::string content_type;
  std::string accept;
  // The encoding of the answer: the body's, unless Accept names only the other one; JSON
  // when the body's type is not one of ours.
  Encoding answer_encoding() const;
};

// A file opened for an answer; closed with the last answer holding it.
struct OpenFile {
  int fd = -1;
  std::uint64_t size = 0;
  OpenFile(int f, std::uint64_t s) : fd(f), size(s) {}
  ~OpenFile();
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
};

// An answer: a status, a media type and a body, which is text, a binary Value (sent raw) or an
// open file.
struct Answer {
  int status = 200;
  std::string content_type{};
  std::string text{};
  std::shared_ptr<const Value> bytes{};
  std::shared_ptr<const OpenFile> file{};

  std::uint64_t size() const;
};

class Api {
 public:
  // `log` takes lines about failures (an error the client sees only as "the server failed").
  Api(std::shared_ptr<service::Engine> engine, std::function<void(const std::string&)> log);

  Answer health() const;
  // The user a bearer token belongs to: an AuthenticationError when the token is empty,
  // unknown or revoked.
  service::Caller authenticate(std::string_view token);
  // The answer to a request whose body (if it takes one) arrived whole; an error answer when
  // the request fails.
  Answer answer(const service::Caller& caller, const Route& route, const RequestHead& head,
                std::string_view body);
  // authenticate() and answer() in one: a read operation's check of the token, of the rights
  // and its answer see the store as of one moment (one read transaction instead of two).
  // `user` is set to the caller's name once the token named one.
  Answer answer(std::string_view token, const Route& route, const RequestHead& head,
                std::string_view body, std::string& user);
  // An upload of the object a put_object route names, written as its body arrives; its
  // answer, once the body arrived whole, comes from uploaded(). A QuotaError (413) when the
  // `announced` size would pass the organisation's byte quota.
  std::unique_ptr<service::ObjectStore::Writer> begin_upload(const service::Caller& caller,
                                                             const Route& route,
                                                             std::uint64_t announced);
  Answer uploaded(service::ObjectStore::Writer& writer, const RequestHead& head);

  // What a client is told of an error: the library's errors keep their kind and message
  // (with the storage directory never shown); anything else is a 500 whose cause goes to the
  // log only.
  Answer error(std::exception_ptr error, Encoding encoding) const;
  Answer error(const ErrorAnswer& error, Encoding encoding) const;

 private:
  Answer encoded(const Value& value, Encoding encoding) const;
  Answer object_file(const service::Caller& caller, const Route& route);
  // `message` with every path under the storage directory made relative to it.
  std::string without_paths(std::string message) const;

  std::shared_ptr<service::Engine> engine_;
  std::function<void(const std::string&)> log_;
  std::string health_;
  std::vector<std::string> storage_names_;  // the storage directory as given and as resolved
};

}  // namespace korvalin_client::server
