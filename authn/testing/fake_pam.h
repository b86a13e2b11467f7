#pragma once

#include <security/pam_appl.h>

/// What the fake PAM library is to do and what was done with it, shared with the test through
/// fake_pam_state(). Plain data, so that it means the same on both sides of dlopen.
struct FakePamState {
  static constexpr int kMaxPrompts = 40;
  static constexpr int kTextSize = 600;

  int start = PAM_SUCCESS;  ///< what the functions return
  int authenticate = PAM_SUCCESS;
  int acct_mgmt = PAM_SUCCESS;
  int setcred = PAM_SUCCESS;
  int prompt_count = 1;  ///< what pam_authenticate asks
  int prompt_styles[kMaxPrompts] = {PAM_PROMPT_ECHO_OFF};

  char calls[kTextSize] = "";  ///< "start(SERVICE,USER) authenticate(FLAGS) …"
  int conversation = PAM_SUCCESS;
  char replies[kTextSize] = "";  ///< of each prompt the text in brackets, or "-" for none
};

extern "C" FakePamState* fake_pam_state();
