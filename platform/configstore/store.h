#pragma once

#include <compare>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sqlite/database_file.h"

namespace SQLite {
class Database;
}

namespace RyxConfigStore {

inline constexpr char kStorePath[] = "/var/tessel/configstore/store.db";

/// Where a key stands.
struct KeyAddress {
  std::string component;
  std::string group;
  std::string key;

  auto operator<=>(const KeyAddress&) const = default;
};

/// One stored value of one key.
struct Entry {
  KeyAddress address;
  std::string instance;  ///< the instance's id; empty for a singleton
  std::string value;     ///< JSON text, an object
};

/// The host's configuration: an SQLite database with one row per key and instance.
///
/// One handle per path is shared by the process and may be used from any thread; other processes
/// may have the same store open. A database that is damaged is set aside under a dated name beside
/// it, which is logged at level 2, before an empty one takes its place. Whatever becomes of this
/// process or of the system, a transaction has happened whole or not at all.
///
/// Every operation throws ConfigStoreException with the code that tells what failed; what the
/// database had to say about it is logged at level 2.
class Store {
 public:
  /// The handle of the store at `path`, which is made, with its directories, on first use.
  [[nodiscard]] static std::shared_ptr<Store> FromPath(const std::string& path = kStorePath);

  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;
  ~Store();

  /// The key's values, ordered by instance.
  [[nodiscard]] std::vector<Entry> Get(const KeyAddress& address);
  /// All values, ordered by address and instance.
  [[nodiscard]] std::vector<Entry> GetAll();

  /// Changes that happen together or not at all.
  class Transaction {
   public:
    /// Adds the value or replaces it. One that is the same stays untouched, change time included.
    void Set(const KeyAddress& address, const std::string& instance, const std::string& value);
    /// Does nothing when there is no such value.
    void Delete(const KeyAddress& address, const std::string& instance);

   private:
    friend class Store;
    explicit Transaction(SQLite::Database& database) : database_(database) {}
    SQLite::Database& database_;
  };

  /// Runs `changes` in one transaction: committed when it returns, rolled back when it throws.
  /// Other users of this handle wait meanwhile; `changes` must not use it.
  void Change(const std::function<void(Transaction&)>& changes);

 private:
  explicit Store(std::string path);

  template <typename Work>
  decltype(auto) Run(const Work& work);
  [[nodiscard]] SQLite::Database& Open();

  std::mutex mutex_;  ///< guards the file, and is held while the database works
  Sqlite::DatabaseFile file_;
};

}  // namespace RyxConfigStore
