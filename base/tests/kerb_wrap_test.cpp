#include "base/include/kerb_wrap.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/log_capture.h"
#include "testsupport/temp_folder.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testsupport::exists;
using testsupport::readFile;
using testsupport::writeFile;

constexpr char GOOD[] =
    "[libdefaults]\n default_realm = GOOD.TEST\n permitted_enctypes = arcfour-hmac-exp aes256-cts-hmac-sha1-96\n";
constexpr char DAMAGED[] = "[libdefaults]\n default_realm\n";
constexpr char EMPTY_PROFILE_LOG[] = "Kerberos config file format error, reinit kerberos context using empty profile.";

std::vector<krb5_enctype> permitted(krb5_context context) {
  krb5_enctype* list = nullptr;
  EXPECT_EQ(krb5_get_permitted_enctypes(context, &list), 0);
  std::vector<krb5_enctype> types;
  for (const krb5_enctype* type = list; type != nullptr && *type != 0; ++type) types.push_back(*type);
  krb5_free_enctypes(context, list);
  return types;
}

std::string defaultRealm(krb5_context context) {
  char* realm = nullptr;
  if (krb5_get_default_realm(context, &realm) != 0) return std::string();
  std::string copy = realm;
  krb5_free_default_realm(context, realm);
  return copy;
}

// The configuration file that the library reads and that the settings name.
class KerberosContextTest : public testing::Test {
 protected:
  KerberosContextTest() {
    setenv("KRB5_CONFIG", conf.c_str(), 1);
    lumo::Props(false, false).setProperty(lumo::PN::KRB5_CONFFILE_NAME, conf);
  }
  ~KerberosContextTest() override {
    unsetenv("KRB5_CONFIG");
    lumo::Props(false, false).eraseProperty(lumo::PN::KRB5_CONFFILE_NAME);
    lumo::Props(false, false).eraseProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO);
  }

  testsupport::TempFolder folder;
  std::string conf = folder.file("krb5.conf");
  std::string bad = conf + ".bad";
  testsupport::LogCapture log{"TRACE"};
};

TEST_F(KerberosContextTest, ReadsTheConfigurationFile) {
  writeFile(conf, GOOD);
  const KerberosContext context;
  ASSERT_NE(context.get(), nullptr);
  EXPECT_EQ(defaultRealm(context.get()), "GOOD.TEST");
  EXPECT_FALSE(exists(bad));
}

TEST_F(KerberosContextTest, MissingFileIsNoFormatError) {
  const KerberosContext context;
  EXPECT_NE(context.get(), nullptr);
  EXPECT_FALSE(exists(bad));
  EXPECT_THAT(log.text(), Not(HasSubstr("empty profile")));
}

TEST_F(KerberosContextTest, DamagedFileIsMovedAsideAndTheEmptyProfileUsed) {
  writeFile(conf, DAMAGED);
  const KerberosContext context;
  ASSERT_NE(context.get(), nullptr);
  EXPECT_FALSE(exists(conf));
  EXPECT_EQ(readFile(bad), DAMAGED);
  EXPECT_THAT(log.text(), HasSubstr(std::string("WARN base.kerberos.wrap: ") + EMPTY_PROFILE_LOG));
  EXPECT_NE(defaultRealm(context.get()), "GOOD.TEST");
}

TEST_F(KerberosContextTest, EveryKindOfFormatErrorIsSurvived) {
  for (const char* content : {"[libdefaults\n", "[libdefaults]\n a = {\n b = c\n}\n}\n", "[libdefaults]\nx\n"}) {
    writeFile(conf, content);
    EXPECT_NO_THROW(KerberosContext()) << content;
    EXPECT_FALSE(exists(conf)) << content;
    EXPECT_EQ(readFile(bad), content);
  }
}

TEST_F(KerberosContextTest, EarlierBadFileIsReplaced) {
  writeFile(bad, "of an earlier run");
  writeFile(conf, DAMAGED);
  const KerberosContext context;
  EXPECT_EQ(readFile(bad), DAMAGED);
  EXPECT_THAT(log.text(), Not(HasSubstr("Failed to move")));
}

TEST_F(KerberosContextTest, FailedRenameIsLoggedWithErrnoAndTheRunGoesOn) {
  writeFile(conf, DAMAGED);
  const std::string elsewhere = folder.file("gone/krb5.conf");
  lumo::Props(false, false).setProperty(lumo::PN::KRB5_CONFFILE_NAME, elsewhere);
  const KerberosContext context;
  EXPECT_NE(context.get(), nullptr);
  EXPECT_EQ(readFile(conf), DAMAGED);
  EXPECT_THAT(log.text(), HasSubstr("DEBUG base.kerberos.wrap: Failed to move bad " + elsewhere + " aside(errno=2)"));
  EXPECT_THAT(log.text(), HasSubstr(EMPTY_PROFILE_LOG));
}

TEST_F(KerberosContextTest, SettingIsFoundWithoutRegardToCase) {
  writeFile(conf, DAMAGED);
  auto& settings = lumo::Props(false, false);
  settings.eraseProperty(lumo::PN::KRB5_CONFFILE_NAME);
  settings.setProperty("KRB5.Conf.FILE", conf);
  const KerberosContext context;
  EXPECT_TRUE(exists(bad));
}

TEST_F(KerberosContextTest, AnyOtherFailureIsAKerberosException) {
  writeFile(conf, "include " + folder.file("nowhere") + "\n");
  try {
    const KerberosContext context;
    FAIL() << "no exception";
  } catch (const KerberosException& failure) {
    EXPECT_STREQ(failure.className(), "KerberosException");
    EXPECT_NE(failure.rc(), 0);
    EXPECT_EQ(failure.what(), KerbMessage(failure.rc(), "init context"));
    EXPECT_THAT(log.text(), HasSubstr("ERROR base.kerberos.wrap: Failed to initialize kerberos context (rc=" +
                                      std::to_string(failure.rc()) + "), reason=" + failure.what()));
  }
  EXPECT_TRUE(exists(conf));
  EXPECT_FALSE(exists(bad));
}

TEST_F(KerberosContextTest, WeakTypesAreAllowedUnlessTheSettingSaysNo) {
  writeFile(conf, GOOD);
  const std::vector<krb5_enctype> withWeak{ENCTYPE_ARCFOUR_HMAC_EXP, ENCTYPE_AES256_CTS_HMAC_SHA1_96};
  const std::vector<krb5_enctype> strong{ENCTYPE_AES256_CTS_HMAC_SHA1_96};
  EXPECT_EQ(permitted(KerberosContext().get()), withWeak);
  for (const char* value : {"off", "", "TRUE", "Yes", "1", "2", "perhaps"}) {
    lumo::Props(false, false).setProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, value);
    EXPECT_EQ(permitted(KerberosContext().get()), withWeak) << value;
  }
  for (const char* value : {"No", "false", "FALSE", "0"}) {
    lumo::Props(false, false).setProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, value);
    EXPECT_EQ(permitted(KerberosContext().get()), strong) << value;
  }
}

TEST_F(KerberosContextTest, CloneIsIndependentWithTheSameProfileAndWeakCrypto) {
  writeFile(conf, GOOD);
  krb5_context copy = nullptr;
  {
    const KerberosContext context;
    copy = context.clone();
    EXPECT_NE(copy, context.get());
    EXPECT_EQ(permitted(copy), permitted(context.get()));
  }
  EXPECT_EQ(defaultRealm(copy), "GOOD.TEST");
  krb5_free_context(copy);

  lumo::Props(false, false).setProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, "no");
  copy = KerberosContext().clone();
  EXPECT_EQ(permitted(copy), std::vector<krb5_enctype>{ENCTYPE_AES256_CTS_HMAC_SHA1_96});
  krb5_free_context(copy);
}

TEST_F(KerberosContextTest, CloneOfAnEmptyProfileWorks) {
  writeFile(conf, DAMAGED);
  const KerberosContext context;
  krb5_context copy = context.clone();
  EXPECT_EQ(permitted(copy), permitted(context.get()));
  krb5_free_context(copy);
}

TEST_F(KerberosContextTest, ContextAndCloneTraceToTheLog) {
  writeFile(conf, GOOD);
  const KerberosContext context;
  krb5_context copy = context.clone();
  for (krb5_context one : {context.get(), copy}) {
    krb5_principal who = nullptr;
    krb5_ccache cache = nullptr;
    ASSERT_EQ(krb5_parse_name(one, one == copy ? "copied@GOOD.TEST" : "first@GOOD.TEST", &who), 0);
    ASSERT_EQ(krb5_cc_new_unique(one, "MEMORY", nullptr, &cache), 0);
    ASSERT_EQ(krb5_cc_initialize(one, cache, who), 0);
    krb5_cc_destroy(one, cache);
    krb5_free_principal(one, who);
  }
  krb5_free_context(copy);
  EXPECT_THAT(log.text(), HasSubstr("with default princ first@GOOD.TEST"));
  EXPECT_THAT(log.text(), HasSubstr("with default princ copied@GOOD.TEST"));
  EXPECT_THAT(log.text(), HasSubstr("DEBUG base.kerberos.wrap: ["));
}

TEST_F(KerberosContextTest, TraceLinesAreWrittenAsTheyAreWithoutTheirNewline) {
  krb5_trace_info line{};
  line.message = "[1] 2.3: 100% of \"this\"\n";
  mvd_krb5_trace_cb(nullptr, &line, nullptr);
  mvd_krb5_trace_cb(nullptr, nullptr, nullptr);
  EXPECT_THAT(log.text(), HasSubstr("base.kerberos.wrap: [1] 2.3: 100% of \"this\" ["));
}

// As the library words them, in a version with every kind of pre-authentication.
TEST_F(KerberosContextTest, TraceLinesFromWhichAPasswordCanBeGuessedAreNotWritten) {
  for (const char* told :
       {"Encrypted timestamp (for 1767225600.1): plain 301AA0, encrypted 58D2",
        "AS key determined by preauth: aes256/AAAA", "AS key obtained for encrypted timestamp: aes256-cts/8B2F",
        "AS key obtained from gak_fct: aes256-cts/8B2F", "Getting AS key, salt \"S\", params \"\"",
        "Encrypted challenge", "FAST reply key: aes256-cts/1", "FAST armor key: aes256-cts/1",
        "SPAKE algorithm result: 00FF", "SPAKE final transcript hash: 00FF", "SPAKE key generated with pubkey 00FF",
        "SPAKE response received with pubkey 00FF"}) {
    const std::string text = std::string("[1] 1767225600.1: ") + told + "\n";
    krb5_trace_info line{};
    line.message = text.c_str();
    mvd_krb5_trace_cb(nullptr, &line, nullptr);
    EXPECT_THAT(log.newTexts("base.kerberos.wrap"), testing::IsEmpty()) << told;
  }
  krb5_trace_info harmless{};
  harmless.message = "[1] 2.3: Sending \x1b[2J request\n";
  mvd_krb5_trace_cb(nullptr, &harmless, nullptr);
  EXPECT_THAT(log.newTexts("base.kerberos.wrap"), testing::ElementsAre("DEBUG [1] 2.3: Sending \\x1b[2J request"));
}

// Where the file cannot be moved, an ordinary context would meet the same error again.
TEST_F(KerberosContextTest, EmptyProfileReadsNoFileWhateverTheMove) {
  testsupport::writeFile(folder.file("good.conf"), GOOD);
  setenv("KRB5_CONFIG", (conf + ":" + folder.file("good.conf")).c_str(), 1);
  writeFile(conf, DAMAGED);
  const KerberosContext context;
  EXPECT_TRUE(exists(bad));
  EXPECT_NE(defaultRealm(context.get()), "GOOD.TEST") << "the second file of the library's list was read";
}

TEST_F(KerberosContextTest, FailedMoveIsSaidBeforeTheEmptyProfile) {
  writeFile(conf, DAMAGED);
  const std::string elsewhere = folder.file("gone/krb5.conf");
  lumo::Props(false, false).setProperty(lumo::PN::KRB5_CONFFILE_NAME, elsewhere);
  const KerberosContext context;
  EXPECT_THAT(log.newTexts("base.kerberos.wrap"),
              testing::ElementsAre("DEBUG Failed to move bad " + elsewhere + " aside(errno=2)",
                                   std::string("WARN ") + EMPTY_PROFILE_LOG));
}

TEST_F(KerberosContextTest, ThreadsThatFindTheSameDamagedFileAllGetAContext) {
  writeFile(conf, DAMAGED);
  std::vector<std::thread> threads;
  std::atomic<int> made{0};
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      const KerberosContext context;
      if (context.get() != nullptr) ++made;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(made, 8);
  EXPECT_FALSE(exists(conf));
  EXPECT_EQ(readFile(bad), DAMAGED);
}

TEST(KerbMessageTest, HoldsTheLibrarysTextEvenBeforeThereIsAContext) {
  EXPECT_EQ(KerbMessage(-1765328248, "init context"), "init context: Improper format of Kerberos configuration file");
  EXPECT_EQ(KerbMessage(-1765328347, "x"), "x: Clock skew too great");
  EXPECT_EQ(KerbMessage(2, "open"), "open: No such file or directory");
  EXPECT_THAT(KerbMessage(-1, "odd"), testing::StartsWith("odd: Unknown code"));
}

TEST(KerbMessageTest, KeepsItsTextsWhenContextsComeAndGo) {
  const std::string before = KerbMessage(-1765328234, "x");
  { const KerberosContext context; }
  EXPECT_EQ(KerbMessage(-1765328234, "x"), before);
}

TEST(KerberosExceptionTest, CarriesItsFields) {
  const KerberosException failure(-1765328228, "no KDC", "a/file.cpp", 12);
  EXPECT_STREQ(failure.what(), "no KDC");
  EXPECT_EQ(failure.rc(), -1765328228);
  EXPECT_STREQ(failure.className(), "KerberosException");
  EXPECT_EQ(failure.file(), "a/file.cpp");
  EXPECT_EQ(failure.line(), 12);
  const LUMOException& root = failure;
  EXPECT_NE(dynamic_cast<const BASALTException*>(&root), nullptr);
}

TEST(KerberosExceptionTest, CodesOfDisagreeingClocksResetTheScheduler) {
  EXPECT_EQ(TimeSyncScheduler::getScheduler(), 0);
  for (const int code : {-1765328236, -1765328373, -1765328363, -1765328351, -1765328347}) {
    TimeSyncScheduler::getScheduler() = 77;
    try {
      throw KerberosException(code, "skew", __FILE__, __LINE__);
    } catch (const std::exception&) {
      // caught and ignored: the slot is reset all the same
    }
    EXPECT_EQ(TimeSyncScheduler::getScheduler(), 0) << code;
  }
}

TEST(KerberosExceptionTest, OtherCodesLeaveTheScheduler) {
  TimeSyncScheduler::getScheduler() = 77;
  for (const int code : {0, -1, 2, -1765328248, -1765328228, -1765328235, -1765328237}) {
    const KerberosException failure(code, "other", __FILE__, __LINE__);
    EXPECT_EQ(TimeSyncScheduler::getScheduler(), 77) << code;
  }
  TimeSyncScheduler::getScheduler() = 0;
}

}  // namespace
