#include "transport/api/media_type.h"

#include <algorithm>

namespace Orbi::Transport::PicoHttp {
namespace {

using Protocol::Json::Form;

struct Row {
  MediaType type;
  std::string_view name;
  Form form;
};

constexpr Row kRows[] = {
    {kPlainJson, "application/json", Form::kPlain},
    {kCleanJson, "application/vnd.tessel.orbi.cleanjson", Form::kClean},
    {kFramed, "application/vnd.tessel.orbi.framed", Form::kPlain},
    {kCleanFramed, "application/vnd.tessel.orbi.cframed.cleanjson", Form::kClean},
    {kPlainStream, "application/vnd.tessel.orbi.stream.json", Form::kPlain},
    {kCleanStream, "application/vnd.tessel.orbi.clean.stream.json", Form::kClean},
};

const Row& RowOf(MediaType type) { return *std::ranges::find(kRows, type, &Row::type); }

}  // namespace

unsigned FindMediaTypes(std::string_view headerValue) {
  unsigned types = 0;
  for (const Row& row : kRows) {
    if (headerValue.find(row.name) != std::string_view::npos) types |= row.type;
  }
  return types;
}

std::string_view NameOf(MediaType type) { return RowOf(type).name; }

Form FormOf(MediaType type) { return RowOf(type).form; }

}  // namespace Orbi::Transport::PicoHttp
