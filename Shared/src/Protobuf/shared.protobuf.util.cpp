#include "shared.protobuf.util.h"

#include <fmt/format.h>
#include <google/protobuf/util/json_util.h>

#include "shared.exception.h"

namespace Shared::Protobuf {

std::string GenerateJSONFrom(const google::protobuf::Message& message, bool /*unused*/, bool /*unused*/) {
    google::protobuf::util::JsonPrintOptions options;
    options.add_whitespace = true;
    std::string json;
    const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
    if (!status.ok()) {
        throw Exception::RuntimeException(
            fmt::format("MessageToJsonString() failed to serialise JSON: {}", std::string(status.message())));
    }
    return json;
}

}  // namespace Shared::Protobuf
