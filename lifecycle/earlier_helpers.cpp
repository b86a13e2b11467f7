#include "lifecycle/earlier_helpers.h"

#include <algorithm>
#include <string_view>

#include <boost/filesystem/directory.hpp>
#include <boost/filesystem/path.hpp>

#include "lifecycle/helper_end.h"
#include "lifecycle/host_claim.h"
#include "lifecycle/paths.h"
#include "pcore/pcore_ctl.h"
#include "software/command/remove_files.h"
#include "tesselibs/json_document.h"
#include "tesselibs/uuid.h"

namespace LifeCycle {
namespace {

/// Whether this system can have given that identifier to a task.
bool IsTaskId(std::string_view text) {
  UUID_Packed packed;
  return UUID_PackText(text, packed) != 0;
}

}  // namespace

EarlierHelpers::EarlierHelpers() : applying_(ClaimWords(kApplyMarker)) {
  for (const std::string& word : applying_)
    if (IsTaskId(word)) documents_[word];
  for (const std::string& word : ClaimWords(kTaskMarker))
    if (IsTaskId(word)) documents_[word] = {kScanDocument};
  FindDocuments();
}

void EarlierHelpers::FindDocuments() {
  const boost::filesystem::path folder = boost::filesystem::path(kTaskStatusFile).parent_path();
  boost::system::error_code error;
  for (boost::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string& path = entry->path().native();
    for (const auto& prefix :
         {kSpecDocument, kDepotsDocument, kConfigurationDocument, kImageDocument}) {
      if (!path.starts_with(prefix)) continue;
      if (const std::string id = path.substr(prefix.size()); IsTaskId(id))
        documents_[id].push_back(path);
    }
  }
}

bool EarlierHelpers::HasGone(const std::string& id, const TaskDB::Record& record) {
  if (!IsTaskId(id)) return false;
  const bool begun = JsonDocument::FindMember(record, "status") != nullptr;
  if (HelperLives(id) || (!begun && documents_.contains(id)))
    watched_.insert(id);
  else if (begun)
    gone_.insert(id);
  return gone_.contains(id);
}

void EarlierHelpers::ExpectEnds() { watched_.merge(gone_); }

void EarlierHelpers::CleanUp() {
  for (const auto& [id, documents] : documents_) {
    if (watched_.contains(id)) continue;
    if (HelperLives(id))
      watched_.insert(id);
    else
      RemoveFiles(documents);
  }
  // Without words it is what a starter made that was killed before it wrote; with other words than
  // a task's it is nobody's whose end could be told.
  const auto isWatched = [this](const std::string& word) { return watched_.contains(word); };
  if ((applying_.empty() || std::ranges::any_of(applying_, IsTaskId)) &&
      std::ranges::none_of(applying_, isWatched))
    FreeHost(kApplyMarker);
  for (const std::string& id : watched_)
    PcoreCtl::Util::PcoreCtl_Watch(EndOfHelper({id, kApplyMarker, documents_[id]}));
}

}  // namespace LifeCycle
