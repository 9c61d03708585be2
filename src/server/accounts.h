// Who may sign in.
#ifndef SIGNALCONN_SERVER_ACCOUNTS_H
#define SIGNALCONN_SERVER_ACCOUNTS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace signalconn::server {

struct Account {
  std::string key, secret;
};

using AccountId = std::size_t;  // index into the accounts

// Whether the two are equal; the time taken depends on their lengths only, so that it does not tell how much
// of a guess is right.
bool equalInConstantTime(std::string_view given, std::string_view wanted);

class Accounts {
 public:
  explicit Accounts(std::vector<Account> accounts);  // keys differ from each other

  std::optional<AccountId> find(std::string_view key, std::string_view secret) const;
  const std::string& keyOf(AccountId id) const { return accounts_.at(id).key; }

 private:
  std::vector<Account> accounts_;
};

}  // namespace signalconn::server

#endif  // SIGNALCONN_SERVER_ACCOUNTS_H
