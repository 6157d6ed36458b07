#include <korvel/reporters/internal/KVRReporterSupport.h>

#include <korvel/reporters/KVRTaggingReporter.h>

namespace korvel::reporters::internal {

void mergeTagParameters(KVRParameters& parameters, const KVRTagDetails* tagDetails) {
  if (tagDetails == nullptr) return;
  parameters.merge(KVRTaggingReporter::reportingParametersForTagDetails(tagDetails));
}

void mergeFeaturedTagParameters(KVRParameters& parameters, const KVRTagDetails* tagDetails) {
  parameters.merge(KVRTaggingReporter::reportingParametersForTagDetails(tagDetails));
  if (const KVRValue* trackKey = parameters.find(kKVRTrackID)) {
    parameters.set(kKVRTrackIdKey, *trackKey);
  }
}

}  // namespace korvel::reporters::internal
