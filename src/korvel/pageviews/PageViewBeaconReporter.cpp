#include <korvel/pageviews/PageViewBeaconReporter.h>

#include <string>

#include <korvel/beacon/KVRConstants.h>
#include <korvel/pageviews/BeaconReporter.h>

namespace korvel {

void PageViewBeaconReporter::report(const PageView& pageView) {
  ReportingParameters parameters;
  parameters.reserve(pageView.reportingParameters.size() + 2);
  for (const auto& parameter : pageView.reportingParameters) {
    if (parameter.key == kKVRScreenName || parameter.key == kKVRDuration) continue;
    parameters.insert(parameter);
  }
  parameters.insert(
      ReportingParameter(std::string(kKVRScreenName), pageView.name.reportingValue()));
  parameters.insert(
      ReportingParameter(std::string(kKVRDuration), ReportingValue::double_(pageView.duration)));
  BeaconReporter::report(KVRBeaconTypePageView, parameters, KVRParameters{});
}

}  // namespace korvel
