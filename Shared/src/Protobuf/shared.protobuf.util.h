#pragma once

#include <google/protobuf/message.h>

#include <string>

namespace Shared::Protobuf {

/// The message as indented JSON text: lowerCamelCase field names, enum values by name, fields with default values left
/// out. The two flags change nothing. Throws RuntimeException "MessageToJsonString() failed to serialise JSON: {}".
[[nodiscard]] std::string GenerateJSONFrom(const google::protobuf::Message& message, bool = false, bool = false);

}  // namespace Shared::Protobuf
