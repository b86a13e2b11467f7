#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace SQLite {
class Database;
}

namespace Sqlite {

/// One SQLite database at a path, in write-ahead mode: connected to on first use, and anew when the
/// file at the path is no longer the one that is known.
///
/// For one thread at a time. Everything throws SQLite::Exception; another process that keeps the
/// database to itself is waited for, five seconds.
class DatabaseFile {
 public:
  enum class Missing { kRefuse, kCreate };
  /// Makes sure of what has to be in a database, after each connecting.
  using Prepare = std::function<void(SQLite::Database&)>;

  DatabaseFile(std::string path, Prepare prepare);
  ~DatabaseFile();

  [[nodiscard]] const std::string& path() const { return path_; }

  /// @param missing  whether a database is made, with its directories, where there is none
  /// @return nullptr when there is none and none is to be made
  [[nodiscard]] SQLite::Database* Connect(Missing missing);

  /// Forgets the connection: the next use makes another.
  void Disconnect();

  /// Gives the database another name, after which there is none at the path.
  /// @return whether it worked; errno then tells why not
  [[nodiscard]] bool SetAside(const std::string& target);

 private:
  struct Identity {
    dev_t device;
    ino_t inode;
    bool operator==(const Identity&) const = default;
  };

  [[nodiscard]] std::optional<Identity> CurrentFile() const;

  const std::string path_;
  const Prepare prepare_;
  std::unique_ptr<SQLite::Database> database_;
  std::optional<Identity> connected_;
};

}  // namespace Sqlite
