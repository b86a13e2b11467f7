#include "authn/pam.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "tesselibs/log.h"
#include "tesselibs/preference.h"
#include "tesselibs/utf8.h"

namespace Host::Settings::SettingsApi::Authn {
namespace {

struct Credentials {
  const std::string& user;
  const std::string& password;
};

/// The answers to a conversation: freed by PAM once handed over, wiped and freed here until then.
class Replies {
 public:
  explicit Replies(int count)
      : count_(count),
        replies_(static_cast<pam_response*>(
            calloc(static_cast<std::size_t>(count), sizeof(pam_response)))) {}
  Replies(const Replies&) = delete;
  Replies& operator=(const Replies&) = delete;
  ~Replies() {
    if (!replies_) return;
    for (int i = 0; i < count_; ++i) {
      if (char* const text = replies_[i].resp) {
        explicit_bzero(text, strlen(text));
        free(text);
      }
    }
    free(replies_);
  }

  [[nodiscard]] bool allocated() const { return replies_ != nullptr; }
  [[nodiscard]] pam_response* Release() { return std::exchange(replies_, nullptr); }

  int Answer(int index, int style, const Credentials& credentials) {
    switch (style) {
      case PAM_PROMPT_ECHO_OFF:
        return Say(index, credentials.password);
      case PAM_PROMPT_ECHO_ON:
        return Say(index, credentials.user);
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        return PAM_SUCCESS;  // nobody to show it to; its reply stays empty
      default:
        return PAM_CONV_ERR;
    }
  }

 private:
  int Say(int index, const std::string& text) {
    if (text.size() >= PAM_MAX_RESP_SIZE) return PAM_CONV_ERR;
    replies_[index].resp = strdup(text.c_str());
    return replies_[index].resp ? PAM_SUCCESS : PAM_BUF_ERR;
  }

  const int count_;
  pam_response* replies_;
};

extern "C" int Converse(int count, const pam_message** messages, pam_response** responses,
                        void* data) {
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  const auto& credentials = *static_cast<const Credentials*>(data);
  Replies replies(count);
  if (!replies.allocated()) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const int status = replies.Answer(i, messages[i]->msg_style, credentials);
    if (status != PAM_SUCCESS) return status;
  }
  *responses = replies.Release();
  return PAM_SUCCESS;
}

/// One dialogue with PAM, which is always ended with the code of its last step.
class Transaction {
 public:
  Transaction(const PamFunctions& pam, const std::string& service, const Credentials& credentials)
      : pam_(pam), conversation_{&Converse, const_cast<Credentials*>(&credentials)} {
    status_ = pam_.start(service.c_str(), credentials.user.c_str(), &conversation_, &handle_);
    if (status_ != PAM_SUCCESS) handle_ = nullptr;
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (handle_) pam_.end(handle_, status_);
  }

  [[nodiscard]] int status() const { return status_; }
  [[nodiscard]] const char* StatusText() const { return pam_.strerror(handle_, status_); }

  [[nodiscard]] bool Do(int (*step)(pam_handle_t*, int), int flags) {
    status_ = step(handle_, flags);
    return status_ == PAM_SUCCESS;
  }

 private:
  const PamFunctions& pam_;
  const pam_conv conversation_;
  pam_handle_t* handle_ = nullptr;
  int status_;
};

bool CanBeTold(const std::string& text, const char* what) {
  if (!Utf8::IsValid(text)) {
    Log_Level(LogLevel::kCritical, "%s not in UTF-8\n", what);
    return false;
  }
  if (text.find('\0') != std::string::npos) {
    Log_Level(LogLevel::kCritical, "%s contains a NUL character\n", what);
    return false;
  }
  return true;
}

struct CloseLibrary {
  void operator()(void* library) const { dlclose(library); }
};
using Library = std::unique_ptr<void, CloseLibrary>;

Library OpenLibrary(const std::string& name) {
  constexpr int kBinding = RTLD_LAZY | RTLD_GLOBAL;
  if (Library system{dlopen(name.c_str(), kBinding)}) return system;

  const std::string directory = Preference_GetString("libdir", "/usr/lib/tessel");
  const std::string path = directory + "/lib/" + name + "/" + name;
  if (access(path.c_str(), F_OK) != 0) {
    Log_Level(LogLevel::kCritical, "System PAM library unusable and bundled one not found.\n");
    return nullptr;
  }
  Library bundled{dlopen(path.c_str(), kBinding)};
  if (!bundled) {
    Log_Level(LogLevel::kCritical, "Neither system nor bundled (%s) PAM libraries usable: %s\n",
              path.c_str(), dlerror());
  }
  return bundled;
}

template <typename Function>
bool Resolve(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (!function) {
    Log_Level(LogLevel::kCritical, "PAM library does not contain required function: %s\n", name);
  }
  return function != nullptr;
}

}  // namespace

PamAuthenticator::PamAuthenticator(std::string library) : library_(std::move(library)) {}

const PamFunctions* PamAuthenticator::Load() {
  if (functions_) return &*functions_;
  Library library = OpenLibrary(library_);
  if (!library) return nullptr;
  PamFunctions pam = {};
  if (!Resolve(library.get(), "pam_start", pam.start) ||
      !Resolve(library.get(), "pam_end", pam.end) ||
      !Resolve(library.get(), "pam_authenticate", pam.authenticate) ||
      !Resolve(library.get(), "pam_setcred", pam.setcred) ||
      !Resolve(library.get(), "pam_acct_mgmt", pam.acct_mgmt) ||
      !Resolve(library.get(), "pam_strerror", pam.strerror)) {
    return nullptr;
  }
  static_cast<void>(library.release());
  Log_Level(LogLevel::kNotice, "PAM up and running.\n");
  return &functions_.emplace(pam);
}

bool PamAuthenticator::AuthenticateUser(const std::string& user, const std::string& password,
                                        const std::string& service) {
  if (!CanBeTold(user, "User") || !CanBeTold(password, "Password")) return false;
  const PamFunctions* const pam = Load();
  if (!pam) return false;

  const Credentials credentials{user, password};
  Transaction transaction(*pam, service, credentials);
  if (transaction.status() != PAM_SUCCESS) {
    Log_Level(LogLevel::kCritical, "Failed to start PAM (error = %d).\n", transaction.status());
    return false;
  }
  const struct {
    int line;  // a fixed text of the log, not a place in this file
    int (*function)(pam_handle_t*, int);
    int flags;
  } steps[] = {
      {424, pam->authenticate, 0},
      {426, pam->acct_mgmt, 0},
      {428, pam->setcred, PAM_ESTABLISH_CRED},
  };
  for (const auto& step : steps) {
    if (transaction.Do(step.function, step.flags)) continue;
    Log_Level(LogLevel::kCritical, "%s:%d: PAM failure - %s (%d)\n", "Auth_AuthenticateUserPAM",
              step.line, transaction.StatusText(), transaction.status());
    return false;
  }
  return true;
}

}  // namespace Host::Settings::SettingsApi::Authn
