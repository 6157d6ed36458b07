// The reporting values' keyed encoded forms as nlohmann-json documents, for
// the library's own code and its tests. Hosts use the JSON text forms
// (toJSONString / fromJSONString in ReportingValue.h), which keep no
// third-party type in the public headers.
//
// toJSON gives a document whose objects sort their keys; encoders throw
// ReportingEncodingError and decoders ReportingDecodingError, with the
// coding path where it happened (codingPath is the path of `json` itself).
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include <korvel/pageviews/ReportingValue.h>

namespace korvel::pageviews::internal {

nlohmann::json toJSON(const ReportingValue& value);
nlohmann::json toJSON(const ReportingParameter& value);
nlohmann::json toJSON(const PageName& value);
nlohmann::json toJSON(const PageView& value);

ReportingValue reportingValueFromJSON(const nlohmann::json& json,
                                      std::vector<std::string> codingPath = {});
ReportingParameter reportingParameterFromJSON(const nlohmann::json& json,
                                              std::vector<std::string> codingPath = {});
PageName pageNameFromJSON(const nlohmann::json& json, std::vector<std::string> codingPath = {});
PageView pageViewFromJSON(const nlohmann::json& json, std::vector<std::string> codingPath = {});

}  // namespace korvel::pageviews::internal
