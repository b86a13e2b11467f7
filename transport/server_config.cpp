#include "transport/server_config.h"

#include <ostream>

namespace Orbi::Transport::PicoHttp {

std::string DurationText(std::chrono::nanoseconds duration) {
  using namespace std::chrono;
  const auto in = [duration]<typename Unit>(Unit) {
    return std::to_string(duration_cast<Unit>(duration).count());
  };
  if (duration < microseconds(1)) return in(nanoseconds()) + " nanoseconds";
  if (duration < milliseconds(1)) return in(microseconds()) + " microseconds";
  if (duration < seconds(1)) return in(milliseconds()) + " milliseconds";

  const auto rest = std::to_string(duration_cast<seconds>(duration % minutes(1)).count());
  if (duration < minutes(1)) return rest + " seconds";
  const auto whole = in(minutes()) + " minutes";
  return rest == "0" ? whole : whole + " and " + rest + " seconds";
}

std::ostream& operator<<(std::ostream& out, const ProtocolHandlerSpec& spec) {
  out << "readTimeout:" << DurationText(spec.readTimeout)
      << ";writeTimeout:" << DurationText(spec.writeTimeout)
      << ";httpBodySizeLimitInBytes:" << spec.httpBodySizeLimitInBytes << ";extractors:";
  if (!spec.extractors) return out << "not set";
  return out << "count:" << spec.extractors->size();
}

std::ostream& operator<<(std::ostream& out, const ServerConfig& config) {
  out << "ServerConfig{port:" << config.port << "endpoint4:" << config.endpoint4
      << ";endpoint6:" << config.endpoint6 << ";Localizer not set;" << config.serverSpec;
  return out << "}";
}

}  // namespace Orbi::Transport::PicoHttp
