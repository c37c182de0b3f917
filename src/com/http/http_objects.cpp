// The object store over HTTP: upload is PUT /api/v1/objects?name=N&category=C&format=F with the
// bytes as the body, download is GET /api/v1/objects/<bucket>/<object>, with the locator read
// as every object store reads it (minio::locate).
#include <cctype>
#include <memory>
#include <string>
#include <utility>

#include "http_transport.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::com::http {
namespace {

std::string url_encode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto b = static_cast<unsigned char>(c);
    if (std::isalnum(b) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += c;
    } else {
      out += '%';
      out += kHex[b >> 4];
      out += kHex[b & 15];
    }
  }
  return out;
}

// "/<bucket>/<part>/<part>...", each segment encoded. Empty, "." and ".." segments are refused:
// they would not name the object the locator gives.
std::string object_path(const minio::ObjectName& name) {
  const auto& [bucket, object] = name;
  const auto usable = [](std::string_view s) { return !s.empty() && s != "." && s != ".."; };
  if (!usable(bucket) || bucket.find('/') != std::string::npos) {
    throw ValueError("object locator names no bucket of this store: \"" + bucket.substr(0, 64) +
                     "\"");
  }
  std::string path = "/" + url_encode(bucket);
  for (std::size_t start = 0;;) {
    const std::size_t slash = object.find('/', start);
    const std::string_view part = std::string_view(object).substr(
        start, slash == std::string::npos ? std::string::npos : slash - start);
    if (!usable(part)) {
      throw ValueError("object locator names no object of this store: \"" + object.substr(0, 64) +
                       "\"");
    }
    path += "/" + url_encode(part);
    if (slash == std::string::npos) return path;
    start = slash + 1;
  }
}

class ObjectClient final : public minio::MinIOAPI {
 public:
  explicit ObjectClient(std::shared_ptr<Transport> transport) : transport_(std::move(transport)) {}

  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override {
    Request request{.method = "PUT",
                    .target = "/api/v1/objects?name=" + url_encode(object_name) +
                              "&category=" + url_encode(category) + "&format=" + url_encode(format),
                    .body = data,
                    .content_type = kBytesType};
    return decode_answer(transport_->send(request), "PUT /api/v1/objects");
  }

  Bytes download(const Value& locator) override {
    Request request{.method = "GET",
                    .target = "/api/v1/objects" + object_path(minio::locate(locator)),
                    .read = true,
                    .raw_answer = true};
    return std::move(transport_->send(request).body);
  }

 private:
  std::shared_ptr<Transport> transport_;
};

}  // namespace

std::shared_ptr<minio::MinIOAPI> make_object_client(std::shared_ptr<Transport> transport) {
  return std::make_shared<ObjectClient>(std::move(transport));
}

}  // namespace korvalin_client::com::http
