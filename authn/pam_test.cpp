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
using Orbi::Authn::Wait;
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
  const std::string asked = "[pw]ask(0) authenticate(0) ", failed = "2 Auth_AuthenticateUserPAM:";
  const struct {
    int FakePamState::*step;
    int result;
    std::string calls, line;
  } cases[] = {
      {&FakePamState::start, 0, "acct_mgmt(0) setcred(2) end(0) ", "5 PAM up and running."},
      {&FakePamState::authenticate, 7, "end(7) ", failed + "424: PAM failure - told so (7)"},
      {&FakePamState::acct_mgmt, 13, "acct_mgmt(0) end(13) ",
       failed + "426: PAM failure - told so (13)"},
      {&FakePamState::setcred, 17, "acct_mgmt(0) setcred(2) end(17) ",
       failed + "428: PAM failure - told so (17)"},
  };
  for (const auto& c : cases) {
    *fake_ = {};
    fake_->*c.step = c.result;
    EXPECT_EQ(pam_.AuthenticateUser("user", "pw", "service"), c.result == PAM_SUCCESS);
    EXPECT_EQ(fake_->calls, "start(service,user) " + asked + c.calls);
    EXPECT_THAT(log_.TakeLines(), ElementsAre(c.line));
  }
  fake_->start = 4;
  EXPECT_FALSE(pam_.AuthenticateUser("user", "pw", "service"));
  EXPECT_THAT(log_.TakeLines(), ElementsAre("2 Failed to start PAM (error = 4)."));
}

TEST_F(PamTest, ConversationAnswersEachPromptByItsStyle) {
  constexpr int kHidden = PAM_PROMPT_ECHO_OFF, kShown = PAM_PROMPT_ECHO_ON, kText = PAM_TEXT_INFO;
  const struct {
    std::vector<int> prompts;
    std::string password, replies;
  } cases[] = {
      {{kText, kShown, PAM_ERROR_MSG, kHidden, kHidden}, "pw", "-[user]-[pw][pw]ask(0)"},
      {std::vector<int>(PAM_MAX_NUM_MSG, kText), "pw", std::string(32, '-') + "ask(0)"},
      {std::vector<int>(PAM_MAX_NUM_MSG + 1, kText), "pw", "ask(19)"},
      {{kHidden, PAM_BINARY_PROMPT}, "pw", "ask(19)"},
      {{kHidden}, std::string(511, 'p'), "[" + std::string(511, 'p') + "]ask(0)"},
      {{kShown, kHidden}, std::string(512, 'p'), "ask(19)"},
  };
  for (const auto& [prompts, password, replies] : cases) {
    *fake_ = {};
    fake_->prompts = prompts;
    EXPECT_EQ(pam_.AuthenticateUser("user", password, "service"), replies.ends_with("(0)"));
    EXPECT_THAT(fake_->calls, StartsWith("start(service,user) " + replies));
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
  EXPECT_EQ(fake_->calls, "");
}

TEST_F(PamTest, LibraryThatIsMissingOrUnusableIsToldAndLookedForAgain) {
  for (const std::string function : {"pam_start", "pam_end", "pam_authenticate", "pam_setcred",
                                     "pam_acct_mgmt", "pam_strerror"}) {
    PamAuthenticator pam(FAKE_PAM + function + ".so");
    EXPECT_FALSE(pam.AuthenticateUser("user", "password", "service"));
    EXPECT_THAT(log_.TakeLines(),
                ElementsAre("2 PAM library does not contain required function: " + function));
  }

  std::string unique = testing::TempDir() + "XXXXXX";
  const fs::path directory = mkdtemp(unique.data()), name = "libno_such_pam.so.0";
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
                          StartsWith("2 Neither system nor bundled (" + bundled.string() + ") PAM"),
                          "5 PAM up and running."));
  fs::remove_all(directory);
}

TEST_F(PamTest, HandlerTakesEqualNameAndPasswordForATicketAndAsksPamForAllOthers) {
  const std::string scheme = "com.tessel.orbi.std.security.user_pass";
  const std::string ticket = "a-ticket-of-the-lifecycle-tooling";
  const fs::path path = Ticket::kDirectory + ("rntkt-" + ticket);
  const std::string refused = "2 Ticket authentication failed for ticket: ";
  fs::create_directories(Ticket::kDirectory);
  const struct {
    std::string scheme, user, password;
    std::optional<Wait> wait;  // none: not for this handler
    bool accepted;
    std::string lastLine;
    std::string issuedFor = "";    // the service of a ticket issued before the call, and its user
    std::string account = "user";  // that the accepted call is made for
  } cases[] = {
      {"com.tessel.orbi.std.security.session_id", "user", "pw", std::nullopt, false, ""},
      {scheme, "user", "pw", Wait::kSystem, true, "5 PAM up and running."},
      {scheme, "root\0"s, "pw", Wait::kSystem, false,
       "2 UserPass authentication failed for user: root"},
      {scheme, "user", "user", Wait::kFiles, false, refused + "user"},
      {scheme, "", "", Wait::kFiles, false, refused},
      {scheme, ticket, ticket, Wait::kFiles, true, "6 [Ticket] Deleted ticket " + ticket,
       "Lifecycle", "root"},
      {scheme, ticket, ticket, Wait::kFiles, true, "6 [Ticket] Deleted ticket " + ticket,
       "Lifecycle\0alice"s, "alice"},
      {scheme, ticket, ticket, Wait::kFiles, false, refused + ticket},
      {scheme, ticket, ticket, Wait::kFiles, false,
       "2 Ticket's service name invalid, ticket: " + ticket + ", service: lifecycle", "lifecycle"},
  };
  Host::Settings::SettingsApi::Authn::UserPassHandler handler{PamAuthenticator(kFakePam)};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lastLine);
    *fake_ = {};
    if (!c.issuedFor.empty()) {
      std::ofstream(path) << ticket << "\nconfig" << '\0' << c.issuedFor << '\0';
      std::filesystem::permissions(path, std::filesystem::perms{0600});
    }
    Orbi::Core::ExecutionContext context;
    context.localization.language = "de_DE";
    context.security = std::make_unique<Orbi::Core::SecurityContext>();
    if (!c.scheme.empty()) context.security->schemeId = c.scheme;
    context.security->userName = c.user;
    context.security->password = c.password;
    ASSERT_EQ(handler.Takes(context), c.wait);
    if (!c.wait) continue;
    ASSERT_EQ(handler.Authenticate(context), c.accepted);
    const bool byPam = c.accepted && c.wait == Wait::kSystem;
    EXPECT_EQ(fake_->calls.substr(0, 20), byPam ? "start(kestreld,user)" : "");
    const auto lines = log_.TakeLines();
    EXPECT_EQ(lines.empty() ? "" : lines.back(), c.lastLine);
    ASSERT_EQ(context.authentication.has_value(), c.accepted);
    if (!context.authentication) continue;
    EXPECT_EQ(context.authentication->type, "UserPassAuthentication");
    EXPECT_EQ(context.authentication->userName, c.account);
    EXPECT_EQ(context.localization.language, "de_DE") << "the client's own wish";
  }
  EXPECT_TRUE(fs::remove(path)) << "a ticket for another service is not ours to use up";
}

}  // namespace
