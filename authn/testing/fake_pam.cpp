// A PAM library that does as it is told and writes down what is done with it.

#include "authn/testing/fake_pam.h"

#include <stdlib.h>
#include <string.h>

#include <string>

static FakePamState state;
static pam_conv conversation;

static void Append(char* text, const std::string& more) {
  strncat(text, more.c_str(), FakePamState::kTextSize - strlen(text) - 1);
}

static int Record(const char* function, int flags, int result) {
  Append(state.calls, std::string(function) + "(" + std::to_string(flags) + ") ");
  return result;
}

/// Asks all prompts in one conversation; writes down and frees the replies.
static void AskPrompts() {
  pam_message messages[FakePamState::kMaxPrompts];
  const pam_message* pointers[FakePamState::kMaxPrompts];
  for (int i = 0; i < state.prompt_count; ++i) {
    messages[i] = {state.prompt_styles[i], "prompt"};
    pointers[i] = &messages[i];
  }
  pam_response* replies = nullptr;
  state.conversation =
      conversation.conv(state.prompt_count, pointers, &replies, conversation.appdata_ptr);
  if (state.conversation != PAM_SUCCESS) return;
  for (int i = 0; i < state.prompt_count; ++i) {
    Append(state.replies, replies[i].resp ? "[" + std::string(replies[i].resp) + "]" : "-");
    free(replies[i].resp);
  }
  free(replies);
}

extern "C" {

FakePamState* fake_pam_state() { return &state; }

int pam_start(const char* service, const char* user, const pam_conv* conv, pam_handle_t** handle) {
  Append(state.calls, std::string("start(") + service + "," + user + ") ");
  conversation = *conv;
  *handle = reinterpret_cast<pam_handle_t*>(&state);
  return state.start;
}

int pam_authenticate(pam_handle_t*, int flags) {
  AskPrompts();
  return Record("authenticate", flags, state.conversation ? PAM_AUTH_ERR : state.authenticate);
}

int pam_acct_mgmt(pam_handle_t*, int flags) { return Record("acct_mgmt", flags, state.acct_mgmt); }
int pam_setcred(pam_handle_t*, int flags) { return Record("setcred", flags, state.setcred); }
int pam_end(pam_handle_t*, int status) { return Record("end", status, PAM_SUCCESS); }
const char* pam_strerror(pam_handle_t*, int) { return "told so"; }

}  // extern "C"
