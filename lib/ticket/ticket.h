#pragma once

#include <cstddef>
#include <optional>
#include <string>

/// One-time tickets: whoever can write into a directory that only root can enter proves by a file
/// there that it acts for the host itself.
///
/// A ticket is a text of 16 to 255 graphic ASCII characters other than '/' and '\'. Whoever issues
/// one draws it at random, makes the directory with mode 0700 where it is missing, and creates in
/// it the file "rntkt-" + TEXT with mode 0600, under a temporary name first and then renamed, so
/// that no reader sees half of it:
///
///     TEXT '\n' CONFIG-FILE-NAME '\0' SERVICE-NAME '\0' [ USER-NAME '\0' ]
///
/// Each name is shorter than 128 bytes and may be empty. The service name tells what the ticket is
/// good for, the user name on whose behalf its bearer acts: the issuer itself when it is left out
/// or empty. The functions here log why a ticket is refused, never throw for a reason that lies in
/// the ticket, and can be called from any thread and process at the same time.
namespace Ticket {

inline constexpr char kDirectory[] = "/var/run/tessel/tickets/";
inline constexpr char kRemoteDeviceDirectory[] = "/var/run/tessel/tickets-remoteDevice/";
inline constexpr char kFilePrefix[] = "rntkt-";

/// What the issuer wrote into the ticket.
struct Content {
  std::string configFile;
  std::string service;
  std::string user;

  bool operator==(const Content&) const = default;
};

/// @return whether `text` may be a ticket, and so part of a path
[[nodiscard]] bool IsWellFormed(const std::string& text);

/// Looks the ticket up among the ordinary tickets and reads it. The ticket stays valid.
/// @return nothing when there is no such ticket, its file is not as an issuer leaves it (a regular
///         file of this process's user, of mode 0600 and with no other name), or the content is not
///         that of this ticket
[[nodiscard]] std::optional<Content> Find(const std::string& text);

/// Deletes the ticket's file.
/// @param text  a ticket that Find has found
/// @return whether this call was the one that deleted it: of all that try, exactly one is told so
[[nodiscard]] bool Consume(const std::string& text);

/// Reads a ticket's content from its file, from the beginning on.
/// @param fd  an open regular file; stays open
[[nodiscard]] std::optional<Content> ReadContent(int fd, const std::string& text);

/// Closes a ticket directory to everybody but its owner.
/// @return false when it is missing, is not a directory of this process's user, lies below one that
///         is another user's or that others may write into, or cannot be closed
[[nodiscard]] bool SetUpDirectory(const char* path);

}  // namespace Ticket
