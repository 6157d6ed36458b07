#include <korvel/network/KVNRetryHandler.h>

#include <gtest/gtest.h>

#include <stdexcept>

#include <korvel/network/KVNConfigurationManager.h>
#include <korvel/platform/KVNUserDefaults.h>
#include "support/TestEnv.h"

namespace korvel {
namespace {

class FixedHandler : public KVNRetryHandler {
 public:
  explicit FixedHandler(std::optional<KVRDate> expiry) : expiry_(expiry) {}
  std::optional<KVRDate> coolDownExpiryTime() const override { return expiry_; }

 private:
  std::optional<KVRDate> expiry_;
};

TEST(KVNRetryHandlerRegistryTest, MakesHandlersByRegisteredName) {
  EXPECT_EQ(KVNRetryHandlerRegistry::make("NoSuchHandler"), nullptr);
  EXPECT_FALSE(KVNRetryHandlerRegistry::isRegistered("NoSuchHandler"));

  int made = 0;
  auto previous = KVNRetryHandlerRegistry::registerFactory("TestHandler", [&made] {
    ++made;
    return std::make_unique<FixedHandler>(KVRDate{42});
  });
  EXPECT_FALSE(previous);
  auto handler = KVNRetryHandlerRegistry::make("TestHandler");
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->coolDownExpiryTime(), KVRDate{42});
  (void)KVNRetryHandlerRegistry::make("TestHandler");
  EXPECT_EQ(made, 2);  // a new handler each time

  // Re-registering hands back the factory it replaced.
  auto replaced = KVNRetryHandlerRegistry::registerFactory(
      "TestHandler", [] { return std::make_unique<FixedHandler>(std::nullopt); });
  ASSERT_TRUE(replaced);
  EXPECT_EQ(replaced()->coolDownExpiryTime(), KVRDate{42});
  EXPECT_EQ(KVNRetryHandlerRegistry::make("TestHandler")->coolDownExpiryTime(), std::nullopt);

  EXPECT_TRUE(KVNRetryHandlerRegistry::unregisterFactory("TestHandler"));
  EXPECT_EQ(KVNRetryHandlerRegistry::make("TestHandler"), nullptr);
  EXPECT_FALSE(KVNRetryHandlerRegistry::unregisterFactory("TestHandler"));
}

TEST(KVNRetryHandlerRegistryTest, AFactoryThatFailsMakesNoHandler) {
  KVNRetryHandlerRegistry::registerFactory(
      "Throwing", []() -> std::unique_ptr<KVNRetryHandler> { throw std::runtime_error("no"); });
  KVNRetryHandlerRegistry::registerFactory("Empty", [] { return nullptr; });
  EXPECT_EQ(KVNRetryHandlerRegistry::make("Throwing"), nullptr);
  EXPECT_EQ(KVNRetryHandlerRegistry::make("Empty"), nullptr);
  // An empty factory unregisters.
  KVNRetryHandlerRegistry::registerFactory("Empty", {});
  EXPECT_FALSE(KVNRetryHandlerRegistry::isRegistered("Empty"));
  KVNRetryHandlerRegistry::unregisterFactory("Throwing");
}

TEST(KVNRetryHandlerRegistryTest, TheConfigurationHandlerIsThereFromTheStart) {
  testing::TestEnv env;
  platform::ScopedEnv scope(env);
  auto defaults = std::make_shared<KVNUserDefaults>(env.documentsDirectory() + "/d.json");
  KVNUserDefaults::setSharedUserDefaults(defaults);
  const double interval = KVNConfigurationManager::coolDownInterval();

  auto handler = KVNRetryHandlerRegistry::make("KVNConfigRetryHandler");
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->coolDownExpiryTime(), std::nullopt);  // never failed

  defaults->setObject(KVRDate{1000}, "kLastConfigurationErrorDate");
  EXPECT_EQ(handler->coolDownExpiryTime(), KVRDate{1000 + interval});
  // Not a date: no failure on record.
  defaults->setObject("yesterday", "kLastConfigurationErrorDate");
  EXPECT_EQ(handler->coolDownExpiryTime(), std::nullopt);

  KVNUserDefaults::setSharedUserDefaults(nullptr);
}

}  // namespace
}  // namespace korvel
