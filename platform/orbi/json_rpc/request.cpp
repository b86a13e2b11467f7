#include "orbi/json_rpc/request.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "orbi/json/reader.h"
#include "tesselibs/wipe.h"

namespace Orbi::Protocol::Json {
namespace {

constexpr std::string_view kVersion = "2.0";
constexpr std::string_view kInvoke = "invoke";
constexpr std::string_view kTooManyEntries = "has more than 64 entries";
static_assert(Core::kMaxApplicationEntries == 64);

/// Values take many times the memory of their text, and whoever sends them is not known yet.
constexpr std::size_t kMaxInputParts = 100'000;  ///< names, values and the ends of containers
constexpr const char* kTooManyParts = "input: has more than 100000 parts";
static_assert(kMaxInputParts == 100'000);

/// The objects of the envelope.
enum class Place { kRoot, kParams, kContext, kApplication, kSecurity };

enum class Slot {
  kIgnored,
  kVersion,
  kId,
  kMethod,
  kParams,
  kService,
  kOperation,
  kContext,
  kInput,
  kApplication,
  kApplicationEntry,
  kSecurity,
  kScheme,
  kUserName,
  kPassword,
};

enum class Type { kAny, kString, kObject, kObjectOrNull };

/// One member that means something, in one of the envelope's objects.
struct Member {
  Slot slot;
  Place place;
  std::string_view name;
  Type type;
  Place opens = Place::kRoot;  ///< by an object
};

constexpr Member kMembers[] = {
    {Slot::kVersion, Place::kRoot, "jsonrpc", Type::kString},
    {Slot::kId, Place::kRoot, "id", Type::kAny},
    {Slot::kMethod, Place::kRoot, "method", Type::kString},
    {Slot::kParams, Place::kRoot, "params", Type::kObject, Place::kParams},
    {Slot::kService, Place::kParams, "serviceId", Type::kString},
    {Slot::kOperation, Place::kParams, "operationId", Type::kString},
    {Slot::kContext, Place::kParams, "ctx", Type::kObjectOrNull, Place::kContext},
    {Slot::kInput, Place::kParams, "input", Type::kAny},
    {Slot::kApplication, Place::kContext, "appCtx", Type::kObjectOrNull, Place::kApplication},
    {Slot::kSecurity, Place::kContext, "securityCtx", Type::kObjectOrNull, Place::kSecurity},
    {Slot::kScheme, Place::kSecurity, "schemeId", Type::kString},
    {Slot::kUserName, Place::kSecurity, "userName", Type::kString},
    {Slot::kPassword, Place::kSecurity, "password", Type::kString},
};
constexpr Member kIgnoredMember{Slot::kIgnored, Place::kRoot, "", Type::kAny};
constexpr Member kApplicationEntry{Slot::kApplicationEntry, Place::kApplication,
                                   "an entry of appCtx", Type::kString};

const Member& MemberOf(Place place, std::string_view name) {
  if (place == Place::kApplication) return kApplicationEntry;
  const auto* const member = std::ranges::find_if(
      kMembers, [&](const Member& m) { return m.place == place && m.name == name; });
  return member == std::end(kMembers) ? kIgnoredMember : *member;
}

/// Walks through a request to its end whatever is wrong with its members, so that its identifier is
/// found wherever it stands, and which fault is told does not depend on the members' order.
class RequestReader final : public Events {
 public:
  RequestReader() {
    // What a request of the usual shape needs.
    constexpr std::size_t kOpenAtOnce = 4;
    constexpr std::size_t kNamesAtOnce = 12;
    open_.reserve(kOpenAtOnce);
    names_.reserve(kNamesAtOnce);
  }

  bool OnScalar(const Scalar& scalar) override;
  bool OnKey(std::string_view name) override;
  bool OnStart(Container container) override;
  bool OnEnd() override;

  /// The request, once its whole text has been read.
  [[nodiscard]] ApiRequest Finish() &&;
  /// The identifier as far as the text has been read.
  [[nodiscard]] RequestId TakeId() { return std::move(id_); }

 private:
  struct OpenObject {
    Place place;
    std::size_t firstName;  ///< of its members so far, in names_
    const Member* member = &kIgnoredMember;
  };

  [[nodiscard]] bool IsFull(const OpenObject& application) const;
  void TakeScalar(const Member& member, const Scalar& scalar);
  void TakeString(const Member& member, std::string_view text);
  void TakeId(const Scalar& scalar);
  void Enter(Place place);
  void StartSubtree(const Member& member, Container container);
  template <typename Event>
  void Build(const Event& event);

  void Fault(const Member& member, std::string_view is);
  std::optional<ProtocolError> Check() const;

  std::vector<OpenObject> open_;
  std::vector<std::string_view> names_;  ///< of the open objects' members, the innermost's last
  // Inside a member whose parts are no members of the envelope: ignored, or the input's.
  std::size_t subtreeNesting_ = 0;
  std::optional<ValueBuilder> builder_;  ///< while the input is read and good
  std::size_t inputParts_ = 0;

  RequestId id_;
  std::optional<std::string> version_;
  std::optional<std::string> method_;
  bool hasParams_ = false;
  ApiCall call_{
      {}, Data::Structure{"operation-input", {}}, std::make_shared<Core::ExecutionContext>()};
  std::string requestFault_;  ///< the first one outside the params
  std::string paramsFault_;   ///< the first one inside
};

bool RequestReader::OnScalar(const Scalar& scalar) {
  if (subtreeNesting_ > 0) {
    Build([&](ValueBuilder& builder) { return builder.OnScalar(scalar); });
  } else if (open_.empty()) {
    requestFault_ = "the request is not an object";
  } else {
    TakeScalar(*open_.back().member, scalar);
  }
  return true;
}

bool RequestReader::OnKey(std::string_view name) {
  if (subtreeNesting_ > 0) {
    Build([&](ValueBuilder& builder) { return builder.OnKey(name); });
  } else {
    OpenObject& object = open_.back();
    if (object.place == Place::kApplication && IsFull(object)) {
      Fault(MemberOf(Place::kContext, "appCtx"), kTooManyEntries);
      object.member = &kIgnoredMember;
      return true;
    }
    names_.push_back(name);
    object.member = &MemberOf(object.place, name);
  }
  return true;
}

bool RequestReader::IsFull(const OpenObject& application) const {
  return names_.size() - application.firstName == Core::kMaxApplicationEntries;
}

bool RequestReader::OnStart(Container container) {
  if (subtreeNesting_ > 0) {
    ++subtreeNesting_;
    Build([&](ValueBuilder& builder) { return builder.OnStart(container); });
    return true;
  }
  const bool object = container == Container::kObject;
  if (open_.empty()) {
    if (object) {
      open_.push_back({Place::kRoot, 0});
    } else {
      requestFault_ = "the request is a batch or a list";
      subtreeNesting_ = 1;
    }
    return true;
  }
  const Member& member = *open_.back().member;
  const bool opens = member.type == Type::kObject || member.type == Type::kObjectOrNull;
  if (object && opens) {
    Enter(member.opens);
  } else {
    StartSubtree(member, container);
  }
  return true;
}

bool RequestReader::OnEnd() {
  if (subtreeNesting_ > 0) {
    --subtreeNesting_;
    Build([](ValueBuilder& builder) { return builder.OnEnd(); });
    return true;
  }
  const OpenObject object = open_.back();
  open_.pop_back();
  const bool twice = HasDuplicates(std::span(names_).subspan(object.firstName));
  names_.resize(object.firstName);
  if (twice) {
    std::string& fault = object.place == Place::kRoot ? requestFault_ : paramsFault_;
    if (fault.empty()) fault = "an object has a member twice";
  }
  return true;
}

void RequestReader::Enter(Place place) {
  if (place == Place::kParams) hasParams_ = true;
  if (place == Place::kSecurity)
    call_.context->security = std::make_unique<Core::SecurityContext>();
  open_.push_back({place, names_.size()});
}

void RequestReader::StartSubtree(const Member& member, Container container) {
  subtreeNesting_ = 1;
  if (member.slot == Slot::kInput) {
    builder_.emplace(Form::kPlain);
    Build([&](ValueBuilder& builder) { return builder.OnStart(container); });
  } else if (member.slot == Slot::kId) {
    Fault(member, "is neither a string, an integer nor null");
  } else if (member.type != Type::kAny) {
    Fault(member, member.type == Type::kString ? "is not a string" : "is not an object");
  }
}

template <typename Event>
void RequestReader::Build(const Event& event) {
  if (!builder_) return;
  if (++inputParts_ > kMaxInputParts) {
    if (paramsFault_.empty()) paramsFault_ = kTooManyParts;
    builder_.reset();
    return;
  }
  const bool good = event(*builder_);
  if (good && !builder_->done()) return;
  if (good) {
    call_.input = builder_->Take();
  } else if (paramsFault_.empty()) {
    paramsFault_ = "input: " + builder_->objection();
  }
  builder_.reset();
}

void RequestReader::TakeScalar(const Member& member, const Scalar& scalar) {
  const auto* const text = std::get_if<std::string_view>(&scalar);
  if (member.slot == Slot::kInput) {
    builder_.emplace(Form::kPlain);
    Build([&](ValueBuilder& builder) { return builder.OnScalar(scalar); });
  } else if (member.slot == Slot::kId) {
    TakeId(scalar);
  } else if (member.type == Type::kString && text) {
    TakeString(member, *text);
  } else if (member.type == Type::kString) {
    Fault(member, "is not a string");
  } else if (member.type == Type::kObject ||
             (member.type == Type::kObjectOrNull && !std::holds_alternative<Null>(scalar))) {
    Fault(member, "is not an object");
  }
}

void RequestReader::TakeString(const Member& member, std::string_view text) {
  Core::ExecutionContext& context = *call_.context;
  switch (member.slot) {
    case Slot::kVersion:
      version_ = text;
      break;
    case Slot::kMethod:
      method_ = text;
      break;
    case Slot::kService:
      call_.method.service = text;
      break;
    case Slot::kOperation:
      call_.method.operation = text;
      break;
    case Slot::kApplicationEntry:
      context.application[std::string(names_.back())] = text;
      break;
    case Slot::kScheme:
      context.security->schemeId = text;
      break;
    case Slot::kUserName:
      context.security->userName = text;
      break;
    case Slot::kPassword:
      context.security->password = text;
      break;
    default:
      break;
  }
}

void RequestReader::TakeId(const Scalar& scalar) {
  if (const auto* text = std::get_if<std::string_view>(&scalar)) {
    id_ = std::string(*text);
  } else if (const auto* integer = std::get_if<std::int64_t>(&scalar)) {
    id_ = *integer;
  } else if (!std::holds_alternative<Null>(scalar)) {
    Fault(MemberOf(Place::kRoot, "id"), "is neither a string, an integer nor null");
  }
}

void RequestReader::Fault(const Member& member, std::string_view is) {
  std::string& fault = member.place == Place::kRoot ? requestFault_ : paramsFault_;
  if (fault.empty()) fault.append(member.name).append(" ").append(is);
}

std::optional<ProtocolError> RequestReader::Check() const {
  const auto error = [](ProtocolErrorCode code, std::string_view what) {
    return ProtocolError{code, std::string("protocol error: ").append(what)};
  };
  constexpr auto kInvalidRequest = ProtocolErrorCode::kInvalidRequest;
  constexpr auto kInvalidParams = ProtocolErrorCode::kInvalidParams;
  if (!requestFault_.empty()) return error(kInvalidRequest, requestFault_);
  if (version_ != kVersion) return error(kInvalidRequest, "jsonrpc is not \"2.0\"");
  if (!method_) return error(kInvalidRequest, "method is missing");
  if (!hasParams_) return error(kInvalidRequest, "params is missing");
  if (method_ != kInvoke) {
    return error(ProtocolErrorCode::kUnknownMethod, "method is not \"invoke\"");
  }
  if (!paramsFault_.empty()) return error(kInvalidParams, paramsFault_);
  if (call_.method.service.empty()) return error(kInvalidParams, "serviceId is missing");
  if (call_.method.operation.empty()) return error(kInvalidParams, "operationId is missing");
  return std::nullopt;
}

ApiRequest RequestReader::Finish() && {
  if (auto error = Check()) return {std::move(id_), std::move(*error)};
  return {std::move(id_), std::move(call_)};
}

/// Overwrites a text when its reader is done with it.
class Wiper {
 public:
  explicit Wiper(std::string& text) : text_(text) {}
  Wiper(const Wiper&) = delete;
  Wiper& operator=(const Wiper&) = delete;
  ~Wiper() { Wipe(text_); }

 private:
  std::string& text_;
};

}  // namespace

ApiRequest JsonApiRequestDeserializer::Deserialize(std::string& body) const {
  const Wiper wiper(body);
  RequestReader reader;
  const auto failure = ParseInPlace(body, kMaxNesting, reader);
  if (!failure) return std::move(reader).Finish();
  return {reader.TakeId(), ProtocolError{ProtocolErrorCode::kNotJson,
                                         "protocol error: " + failure->text + " (at byte " +
                                             std::to_string(failure->offset) + ")"}};
}

}  // namespace Orbi::Protocol::Json
