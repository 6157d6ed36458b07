#include <korvel/reporters/KVRWidgetReporter.h>

#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRWidgetReporter::reportUserHasiOS14Widgets(bool hasWidgets) noexcept try {
  reporting::send(KVRBeaconTypeWidget, KVRParameters{{"widget", reporting::flag(hasWidgets)}});
} catch (...) {
  KVRLogging::logReportFailure("KVRWidgetReporter::reportUserHasiOS14Widgets");
}

}  // namespace korvel
