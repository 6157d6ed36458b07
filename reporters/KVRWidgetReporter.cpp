#include "reporters/KVRWidgetReporter.h"

#include "reporters/KVRReporterSupport.h"

namespace korvel {

void KVRWidgetReporter::reportUserHasiOS14Widgets(bool hasWidgets) {
  reporting::send(KVRBeaconTypeWidget, KVRParameters{{"widget", reporting::flag(hasWidgets)}});
}

}  // namespace korvel
