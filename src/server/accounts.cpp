#include "accounts.h"

#include <utility>

namespace signalconn::server {

bool equalInConstantTime(std::string_view given, std::string_view wanted) {
  // volatile: the compiler must not find out that it could stop early.
  volatile unsigned char difference = given.size() == wanted.size() ? 0 : 1;
  for (std::size_t i = 0; i < given.size(); ++i) {
    const char expected = wanted.empty() ? '\0' : wanted[i % wanted.size()];
    difference = static_cast<unsigned char>(difference | static_cast<unsigned char>(given[i] ^ expected));
  }
  return difference == 0;
}

Accounts::Accounts(std::vector<Account> accounts) : accounts_(std::move(accounts)) {}

std::optional<AccountId> Accounts::find(std::string_view key, std::string_view secret) const {
  std::optional<AccountId> found;
  for (AccountId id = 0; id < accounts_.size(); ++id) {
    const bool keyFits = equalInConstantTime(key, accounts_[id].key);
    const bool secretFits = equalInConstantTime(secret, accounts_[id].secret);
    if (keyFits && secretFits) found = id;
  }
  return found;
}

}  // namespace signalconn::server
