#include <korvel/reporters/KVRWidgetReporter.h>

#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRWidgetReporter::reportUserHasiOS14Widgets(bool hasWidgets) noexcept try {
  reporters::internal::send(KVRBeaconTypeWidget, KVRParameters{{"widget", reporters::internal::flag(hasWidgets)}});
} catch (...) {
  KVRLogging::logReportFailure("KVRWidgetReporter::reportUserHasiOS14Widgets");
}

}  // namespace korvel
