#pragma once
// The model as one JSON document, for the state file. Members are not part of
// it: they come from the command line on every start.

#include <nlohmann/json.hpp>

namespace devserver {

class ServiceModel;

nlohmann::json encodeState(const ServiceModel& model);

// Replaces the model's devices, brains and authorisation state with the
// document's. Throws nlohmann::json::exception on a malformed document.
void decodeState(const nlohmann::json& document, ServiceModel& model);

}  // namespace devserver
