#pragma once

#include <cstddef>
#include <map>
#include <string>

#include <boost/intrusive/list.hpp>

namespace Orbi::Transport::PicoHttp {

/// The open connections of a server, of which there may be so many.
///
/// At that number a new one takes the place of the one that has been idle for longest: that has
/// brought no complete request head for longest, be it none of a request or a part of one. When
/// none is idle, it takes the place of the one whose request has been arriving for longest; when
/// all have brought their requests, there is no room. A party that has its part of the connections
/// makes room by its own.
///
/// Everything happens on the thread that runs the I/O context.
class ConnectionTable {
 public:
  class Entry;

  /// @param most  connections; a quarter of them may be one party's
  explicit ConnectionTable(std::size_t most) : most_(most) {}
  ConnectionTable(const ConnectionTable&) = delete;
  ConnectionTable& operator=(const ConnectionTable&) = delete;

 private:
  struct OfAll;
  struct OfParty;
  template <class Tag>
  using Hook =
      boost::intrusive::list_base_hook<boost::intrusive::tag<Tag>,
                                       boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
  template <class Tag>
  using List = boost::intrusive::list<Entry, boost::intrusive::base_hook<Hook<Tag>>,
                                      boost::intrusive::constant_time_size<false>>;
  /// Who can make room, each list in the order of time.
  template <class Tag>
  struct Candidates {
    List<Tag> idle;
    List<Tag> arriving;
  };
  struct Party;
  using Parties = std::map<std::string, Party>;

  const std::size_t most_;
  std::size_t count_ = 0;
  Parties parties_;
  Candidates<OfAll> candidates_;
};

/// The place of one connection.
class ConnectionTable::Entry : public Hook<OfAll>, public Hook<OfParty> {
 public:
  explicit Entry(ConnectionTable& table) : table_(table) {}
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

  /// Takes a place, as one of the idle. Called once.
  /// @param isLimited  whether the party's part is a limit to this connection
  /// @return false when there is no room
  [[nodiscard]] bool Enter(const std::string& party, bool isLimited);

  /// The connection waits for a request from now on.
  void BeIdle();
  /// The connection has the head of a request from now on, and its body arrives.
  void BeArriving();
  /// The connection holds a request from now on.
  void BeBusy();

 protected:
  ~Entry() { Leave(); }

 private:
  /// Closes the connection, which has lost its place.
  virtual void MakeRoom() noexcept = 0;
  void Leave();
  template <class Tag>
  [[nodiscard]] static bool GiveWay(Candidates<Tag>& candidates);

  ConnectionTable& table_;
  Parties::iterator party_;
  bool entered_ = false;
};

struct ConnectionTable::Party {
  std::size_t count = 0;
  Candidates<OfParty> candidates;
};

}  // namespace Orbi::Transport::PicoHttp
