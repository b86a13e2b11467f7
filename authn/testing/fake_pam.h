#pragma once

#include <security/pam_appl.h>

#include <string>
#include <vector>

/// What the fake PAM library is to do and what was done with it, shared with the test through
/// fake_pam_state(), since the library is loaded at run time.
struct FakePamState {
  int start = PAM_SUCCESS;  ///< what the functions return
  int authenticate = PAM_SUCCESS;
  int acct_mgmt = PAM_SUCCESS;
  int setcred = PAM_SUCCESS;
  std::vector<int> prompts = {PAM_PROMPT_ECHO_OFF};  ///< what pam_authenticate asks at once

  std::string calls;  ///< "start(SERVICE,USER) [REPLY]-ask(RESULT) authenticate(FLAGS) …"
};

extern "C" FakePamState* fake_pam_state();
