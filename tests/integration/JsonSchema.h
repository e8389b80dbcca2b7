// A validator of JSON Schema (draft 2020-12) for what the project's schema uses of it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Velantrix::Test {

/// Why @p value breaks @p schema, with the place in front; empty when it does not. Known are $ref to
/// "#/$defs/...", type, enum, const, pattern, minimum, required, properties, additionalProperties, items and
/// oneOf. Throws std::invalid_argument for any other keyword that is no annotation, so that no part
/// of a schema goes unchecked.
std::string schemaViolation(const nlohmann::json& schema, const nlohmann::json& value);

}  // namespace Velantrix::Test
