// A PAM library that does as it is told and writes down what is done with it.

#include "authn/testing/fake_pam.h"

#include <stdlib.h>

static FakePamState state;
static pam_conv conversation;

static int Record(const char* function, int argument, int result) {
  state.calls += std::string(function) + "(" + std::to_string(argument) + ") ";
  return result;
}

static int AskPrompts() {
  const std::size_t prompts = state.prompts.size();
  std::vector<pam_message> messages(prompts);
  std::vector<const pam_message*> pointers(prompts);
  for (std::size_t i = 0; i < prompts; ++i) {
    messages[i] = {state.prompts[i], "prompt"};
    pointers[i] = &messages[i];
  }
  const int count = static_cast<int>(prompts);
  pam_response* replies = nullptr;
  const int result = conversation.conv(count, pointers.data(), &replies, conversation.appdata_ptr);
  for (int i = 0; result == PAM_SUCCESS && i < count; ++i) {
    state.calls += replies[i].resp ? "[" + std::string(replies[i].resp) + "]" : "-";
    free(replies[i].resp);
  }
  free(replies);
  return Record("ask", result, result);
}

extern "C" {

FakePamState* fake_pam_state() { return &state; }

int pam_start(const char* service, const char* user, const pam_conv* conv, pam_handle_t** handle) {
  state.calls += std::string("start(") + service + "," + user + ") ";
  conversation = *conv;
  *handle = reinterpret_cast<pam_handle_t*>(&state);
  return state.start;
}

int pam_authenticate(pam_handle_t*, int flags) {
  const int asked = AskPrompts();
  return Record("authenticate", flags, asked == PAM_SUCCESS ? state.authenticate : PAM_AUTH_ERR);
}

int pam_acct_mgmt(pam_handle_t*, int flags) { return Record("acct_mgmt", flags, state.acct_mgmt); }
int pam_setcred(pam_handle_t*, int flags) { return Record("setcred", flags, state.setcred); }
int pam_end(pam_handle_t*, int status) { return Record("end", status, PAM_SUCCESS); }
const char* pam_strerror(pam_handle_t*, int) { return "told so"; }

}  // extern "C"
