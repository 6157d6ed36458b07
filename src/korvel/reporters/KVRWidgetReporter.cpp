#include <korvel/reporters/KVRWidgetReporter.h>

#include <korvel/reporters/internal/KVRReporterSupport.h>

namespace korvel {

void KVRWidgetReporter::reportUserHasiOS14Widgets(bool hasWidgets) {
  reporting::send(KVRBeaconTypeWidget, KVRParameters{{"widget", reporting::flag(hasWidgets)}});
}

}  // namespace korvel
