#include "libbundle/UserInfoProvider.h"

#include <atomic>

namespace {

std::atomic<const IUserInfoProvider*> gProvider{nullptr};

}  // namespace

void UserInfoProviderRegistry::registerProvider(const IUserInfoProvider* provider) {
  gProvider = provider;
}

void UserInfoProviderRegistry::unregisterProvider(const IUserInfoProvider* provider) {
  const IUserInfoProvider* expected = provider;
  gProvider.compare_exchange_strong(expected, nullptr);
}

const IUserInfoProvider* UserInfoProviderRegistry::getProvider() { return gProvider; }
