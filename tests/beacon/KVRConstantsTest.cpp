// Exported names against the exact words they put on the wire, written out
// by hand on purpose: a constant that drifts (a typo, a "fix" of a name that
// looks wrong) changes what the collector receives. Only the names no other
// test pins are listed; the reporter tables check the rest at the wire.
#include <gtest/gtest.h>
#include <korvel/beacon/KVRConstants.h>

#include <string_view>

namespace korvel {
namespace {

struct Constant {
  const char* name;
  std::string_view actual;
  const char* wire;
};

#define KVR_CONSTANT(name, wire) \
  Constant { #name, name, wire }

const Constant kConstants[] = {
    KVR_CONSTANT(KVRDebugMessageClosedMatchResultNotification,
                 "KVRDebugMessageClosedMatchResultNotification"),
    KVR_CONSTANT(KVRDebugMessageDisplayingNoMatchNotification,
                 "KVRDebugMessageDisplayingNoMatchNotification"),
    KVR_CONSTANT(KVRDebugMessageDisplayingTagResultNotification,
                 "KVRDebugMessageDisplayingTagResultNotification"),
    KVR_CONSTANT(KVRDebugMessageLogInAppUpsellOptionsNotification,
                 "KVRDebugMessageLogInAppUpsellOptionsNotification"),
    KVR_CONSTANT(KVRDebugMessageLogOpenedURLNotification,
                 "KVRDebugMessageLogOpenedURLNotification"),
    KVR_CONSTANT(KVRReliableNetworkingTaskCreatedNotification,
                 "KVRReliableNetworkingTaskCreatedNotification"),
    KVR_CONSTANT(KVRReliableNetworkingTaskSubmittedNotification,
                 "KVRReliableNetworkingTaskSubmittedNotification"),
    KVR_CONSTANT(KVRShortcutTypeAutoTag, "continuous"),
    KVR_CONSTANT(KVRShortcutTypeFindEvents, "findEvents"),
    KVR_CONSTANT(kKVRAuthenticated, "authenticated"),
    KVR_CONSTANT(kKVRAutoKorvels, "autokorvels"),
    KVR_CONSTANT(kKVREducationPill, "educationpill"),
    KVR_CONSTANT(kKVRHubMessage, "hub_msg"),
    KVR_CONSTANT(kKVRRedeemDeeplink, "redeemdeeplink"),
    KVR_CONSTANT(kKVRSetlistArtworkAMfA, "artwork_amfa"),
    KVR_CONSTANT(kKVRSetlistArtworkEditorial, "artwork_editorial"),
    KVR_CONSTANT(kKVRSetlistEditorial, "set_list_editorial"),
    KVR_CONSTANT(kKVRStatusCode, "statuscode"),
};

#undef KVR_CONSTANT

TEST(KVRConstantsTest, NamesHaveTheirExactWireWords) {
  for (const auto& c : kConstants) EXPECT_EQ(c.actual, c.wire) << c.name;
}

}  // namespace
}  // namespace korvel
