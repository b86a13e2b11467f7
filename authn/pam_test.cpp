#include "authn/pam.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "authn/testing/fake_pam.h"
#include "authn/user_pass_handler.h"
#include "lib/ticket/ticket.h"
#include "tesselibs/preference.h"
#include "tesselibs/testing/captured_log.h"

namespace {

namespace fs = std::filesystem;
using Host::Settings::SettingsApi::Authn::PamAuthenticator;
using Host::Settings::SettingsApi::Authn::UserPassHandler;
using Orbi::Authn::Verdict;
using testing::ElementsAre;
using testing::StartsWith;
using namespace std::string_literals;

const std::string kFakePam = FAKE_PAM "nothing.so";

/// With a PAM library that accepts everybody who answers its prompt for the password.
class PamTest : public testing::Test {
 protected:
  PamTest() {
    void* const library = dlopen(kFakePam.c_str(), RTLD_LAZY);
    fake_ = reinterpret_cast<decltype(&fake_pam_state)>(dlsym(library, "fake_pam_state"))();
    *fake_ = {};
  }

  CapturedLog log_;
  FakePamState* fake_;
  PamAuthenticator pam_{kFakePam};
};

TEST_F(PamTest, FirstFailingStepFailsTheCheckAndPamIsEndedWithItsCode) {
  const std::string start = "start(service,user) ", failure = ": PAM failure - told so ";
  const struct {
    int FakePamState::*step;
    int result;
    std::string calls;
    std::string line;
  } cases[] = {
      {&FakePamState::start, PAM_SUCCESS, "authenticate(0) acct_mgmt(0) setcred(2) end(0) ",
       "5 PAM up and running."},
      {&FakePamState::start, 4, "", "2 Failed to start PAM (error = 4)."},
      {&FakePamState::authenticate, 7, "authenticate(0) end(7) ",
       "2 Auth_AuthenticateUserPAM:424" + failure + "(7)"},
      {&FakePamState::acct_mgmt, 13, "authenticate(0) acct_mgmt(0) end(13) ",
       "2 Auth_AuthenticateUserPAM:426" + failure + "(13)"},
      {&FakePamState::setcred, 17, "authenticate(0) acct_mgmt(0) setcred(2) end(17) ",
       "2 Auth_AuthenticateUserPAM:428" + failure + "(17)"},
  };
  for (const auto& c : cases) {
    *fake_ = {};
    fake_->*c.step = c.result;
    EXPECT_EQ(pam_.AuthenticateUser("user", "password", "service"), c.result == PAM_SUCCESS);
    EXPECT_EQ(fake_->calls, start + c.calls);
    EXPECT_THAT(log_.TakeLines(), ElementsAre(c.line));
  }
}

TEST_F(PamTest, ConversationAnswersEachPromptByItsStyle) {
  constexpr int kHidden = PAM_PROMPT_ECHO_OFF, kShown = PAM_PROMPT_ECHO_ON;
  const struct {
    std::vector<int> prompts;
    std::string password;
    int result;
    std::string replies;
  } cases[] = {
      {{PAM_TEXT_INFO, kShown, PAM_ERROR_MSG, kHidden, kHidden}, "pw", 0, "-[user]-[pw][pw]"},
      {std::vector<int>(PAM_MAX_NUM_MSG, PAM_TEXT_INFO), "pw", 0, std::string(32, '-')},
      {std::vector<int>(PAM_MAX_NUM_MSG + 1, PAM_TEXT_INFO), "pw", PAM_CONV_ERR, ""},
      {{}, "pw", PAM_CONV_ERR, ""},
      {{kHidden, PAM_BINARY_PROMPT}, "pw", PAM_CONV_ERR, ""},
      {{kHidden}, std::string(511, 'p'), 0, "[" + std::string(511, 'p') + "]"},
      {{kShown, kHidden}, std::string(512, 'p'), PAM_CONV_ERR, ""},
  };
  for (const auto& c : cases) {
    *fake_ = {};
    fake_->prompt_count = static_cast<int>(c.prompts.size());
    std::copy(c.prompts.begin(), c.prompts.end(), fake_->prompt_styles);
    EXPECT_EQ(pam_.AuthenticateUser("user", c.password, "service"), c.result == PAM_SUCCESS);
    EXPECT_EQ(fake_->conversation, c.result);
    EXPECT_EQ(fake_->replies, c.replies);
  }
}

TEST_F(PamTest, TextThatPamWouldReadOtherwiseNeverReachesIt) {
  EXPECT_TRUE(pam_.AuthenticateUser("\u00e9\u20ac\U0001f600", "\U0010ffff", "service"));
  *fake_ = {};
  for (const std::string& text :
       {"root\0x"s, "\xff"s, "\x80"s, "\xc3"s, "\xe2\x82"s,        // not whole
        "\xc0\xaf"s, "\xe0\x80\xaf"s, "\xf0\x80\x80\xaf"s,         // longer than need be
        "\xed\xa0\x80"s, "\xed\xbf\xbf"s, "\xf4\x90\x80\x80"s}) {  // no character's code
    const std::string why = text.starts_with("root") ? "contains a NUL character" : "not in UTF-8";
    static_cast<void>(log_.TakeLines());
    EXPECT_FALSE(pam_.AuthenticateUser(text, "password", "service"));
    EXPECT_FALSE(pam_.AuthenticateUser("user", text, "service"));
    EXPECT_THAT(log_.TakeLines(), ElementsAre("2 User " + why, "2 Password " + why));
  }
  EXPECT_STREQ(fake_->calls, "");
}

TEST_F(PamTest, LibraryThatIsMissingOrUnusableIsToldAndLookedForAgain) {
  for (const std::string function : {"pam_start", "pam_end", "pam_authenticate", "pam_setcred",
                                     "pam_acct_mgmt", "pam_strerror"}) {
    PamAuthenticator pam(FAKE_PAM + function + ".so");
    EXPECT_FALSE(pam.AuthenticateUser("user", "password", "service"));
    EXPECT_THAT(log_.TakeLines(),
                ElementsAre("2 PAM library does not contain required function: " + function));
  }

  const fs::path directory = testing::TempDir() + "libdir", name = "libno_such_pam.so.0";
  const fs::path bundled = directory / "lib" / name / name;
  fs::create_directories(bundled.parent_path());
  std::ofstream(directory / "preferences") << "libdir = " << directory.string() << "\n";
  Preference_Init(directory / "preferences");
  PamAuthenticator pam(name);
  EXPECT_FALSE(pam.AuthenticateUser("user", "password", "service"));
  std::ofstream(bundled) << "no library";
  EXPECT_FALSE(pam.AuthenticateUser("user", "password", "service"));
  fs::copy_file(kFakePam, bundled, fs::copy_options::overwrite_existing);
  EXPECT_TRUE(pam.AuthenticateUser("user", "password", "service"));
  EXPECT_THAT(log_.TakeLines(),
              ElementsAre("2 System PAM library unusable and bundled one not found.",
                          StartsWith("2 Neither system nor bundled (" + bundled.string() +
                                     ") PAM libraries usable: " + bundled.string() + ": "),
                          "5 PAM up and running."));
  fs::remove_all(directory);
}

class UserPassHandlerTest : public PamTest {
 protected:
  void IssueTicket(const std::string& service) const {
    fs::create_directories(Ticket::kDirectory);
    std::ofstream(path_) << ticket_ << "\nconfig" << '\0' << service << '\0';
  }

  Verdict Authenticate(const std::string& user, const std::string& password,
                       const char* scheme = "com.tessel.orbi.std.security.user_pass") {
    context_ = {};
    context_.localization.language = "de_DE";
    context_.security = std::make_unique<Orbi::Core::SecurityContext>();
    if (scheme) context_.security->scheme_id = scheme;
    context_.security->user_name = user;
    context_.security->password = password;
    return handler_.Authenticate(context_);
  }

  const std::string ticket_ = "a-ticket-of-the-lifecycle-tooling";
  const fs::path path_ = Ticket::kDirectory + ("rntkt-" + ticket_);
  Orbi::Core::ExecutionContext context_;
  UserPassHandler handler_{PamAuthenticator(kFakePam)};
};

TEST_F(UserPassHandlerTest, AccountIsCheckedWithPamAndOtherSchemesArePassedOn) {
  EXPECT_EQ(Authenticate("user", "password", nullptr), Verdict::kNotMine);
  EXPECT_EQ(Authenticate("user", "password", "com.tessel.orbi.std.security.session_id"),
            Verdict::kNotMine);
  EXPECT_STREQ(fake_->calls, "");

  EXPECT_EQ(Authenticate("user", "password"), Verdict::kAccepted);
  EXPECT_THAT(fake_->calls, StartsWith("start(kestreld,user) "));
  EXPECT_EQ(context_.authentication.value().type, "UserPassAuthentication");
  EXPECT_EQ(context_.authentication.value().user_name, "user");
  EXPECT_EQ(context_.localization.language, "de_DE") << "the client's own wish";

  fake_->authenticate = PAM_AUTH_ERR;
  EXPECT_EQ(Authenticate("user", "wrong"), Verdict::kRefused);
  EXPECT_FALSE(context_.authentication);
  EXPECT_EQ(log_.TakeLines().back(), "2 UserPass authentication failed for user: user");
}

TEST_F(UserPassHandlerTest, EqualNameAndPasswordAreATicketAndNeverReachPam) {
  IssueTicket("Lifecycle");
  EXPECT_EQ(Authenticate(ticket_, ticket_), Verdict::kAccepted);
  EXPECT_EQ(Authenticate(ticket_, ticket_), Verdict::kRefused) << "good for one call";
  IssueTicket("lifecycle");
  EXPECT_EQ(Authenticate(ticket_, ticket_), Verdict::kRefused);
  EXPECT_TRUE(fs::exists(path_)) << "not ours to use up";
  EXPECT_EQ(Authenticate("user", "user"), Verdict::kRefused);
  EXPECT_EQ(Authenticate("", ""), Verdict::kRefused);
  EXPECT_STREQ(fake_->calls, "");
  const std::string too_short = "3 [Ticket] Ticket is too short. Actual ";
  EXPECT_THAT(
      log_.TakeLines(),
      ElementsAre(
          "6 [Ticket] Deleted ticket " + ticket_, "3 [Ticket] Ticket not found: " + ticket_,
          "2 Ticket authentication failed for ticket: " + ticket_,
          "2 Ticket's service name invalid, ticket: " + ticket_ + ", service: lifecycle",
          too_short + "4, expected at least 16", "2 Ticket authentication failed for ticket: user",
          too_short + "0, expected at least 16", "2 Ticket authentication failed for ticket: "));
}

}  // namespace
