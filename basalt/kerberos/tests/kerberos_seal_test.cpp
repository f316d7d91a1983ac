#include "basalt/kerberos/kerberos_seal.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/include/exceptions.h"
#include "base/include/kerb_wrap.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/keytab.h"
#include "testsupport/sanitizers.h"
#include "testsupport/temp_folder.h"

#ifdef FERRO_SANITIZED_ADDRESS
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using lumo::OpenedCredential;
using lumo::SealedCredential;
using lumo::Shredder2;
using testing::HasSubstr;
using testsupport::KeytabEntry;
using testsupport::writeKeytab;

constexpr char MACHINE[] = "HOST1$@CORP.EXAMPLE.TEST";
constexpr char DAMAGED_TEXT[] = "The stored credential is damaged or another machine's; store the credential again";
const std::vector<int> ALL_TYPES = {16, 17, 18, 19, 20, 23, 24, 25, 26};

std::string textOf(const Shredder2& secret) { return std::string(secret.data(), secret.size()); }

// What opening the bytes fails with; the type is checked by the caller's template argument.
template <class Failure>
std::string failureOf(const std::string& bytes, const std::string& keytab) {
  try {
    lumo::openCredential(bytes, keytab);
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "no failure";
}

class KerberosSealTest : public testing::Test {
 protected:
  KerberosSealTest() {
    setenv("KRB5_CONFIG", folder.file("krb5.conf").c_str(), 1);
    permit(
        "aes256-sha2 aes256-cts camellia256-cts aes128-sha2 aes128-cts camellia128-cts des3-cbc-sha1 arcfour-hmac "
        "arcfour-hmac-exp");
  }
  ~KerberosSealTest() override { unsetenv("KRB5_CONFIG"); }

  void permit(const std::string& types) const {
    testsupport::writeFile(folder.file("krb5.conf"), "[libdefaults]\n permitted_enctypes = " + types + "\n");
  }
  void writeMachineKey(int kvno = 3, int encType = 18) const { writeKeytab(keytab, {{MACHINE, kvno, encType, "pw"}}); }

  testsupport::TempFolder folder;
  const std::string keytab = folder.file("keytab");
};

TEST_F(KerberosSealTest, OpensWhatItSealedUnderEveryEncryptionType) {
  for (const int type : ALL_TYPES) {
    writeMachineKey(7, type);
    for (const char* secret : {"", "x", "secret", "seven77", "eight888", "a longer secret of more than one block"}) {
      const SealedCredential sealed = lumo::sealCredential("CORP\\proxy", Shredder2(secret), keytab);
      EXPECT_EQ(sealed.keyVersion, 7);
      EXPECT_EQ(sealed.encType, type);
      EXPECT_EQ(sealed.bytes.find("proxy"), std::string::npos) << "the user must not stand in the clear";
      const OpenedCredential opened = lumo::openCredential(sealed.bytes, keytab);
      EXPECT_EQ(opened.user, "CORP\\proxy") << type;
      EXPECT_EQ(textOf(opened.secret), secret) << type;
      EXPECT_EQ(opened.keyVersion, 7);
      EXPECT_EQ(opened.encType, type);
    }
  }
}

TEST_F(KerberosSealTest, HeaderNamesFormatKeyVersionAndType) {
  writeMachineKey(258, 20);
  const SealedCredential sealed = lumo::sealCredential("u", Shredder2("s"), keytab);
  EXPECT_EQ(sealed.bytes.substr(0, 13), std::string("MVPC\x01\0\0\x01\x02\0\0\0\x14", 13));
}

TEST_F(KerberosSealTest, SameCredentialIsNeverSealedToTheSameBytes) {
  writeMachineKey();
  EXPECT_NE(lumo::sealCredential("u", Shredder2("s"), keytab).bytes,
            lumo::sealCredential("u", Shredder2("s"), keytab).bytes);
}

TEST_F(KerberosSealTest, UserMayHoldAnyBytes) {
  writeMachineKey();
  std::string user;
  for (int byte = 0; byte < 256; ++byte) user.push_back(static_cast<char>(byte));
  for (const std::string& one : {user, std::string(), std::string(1, '\0'), std::string(70000, 'u')}) {
    const SealedCredential sealed = lumo::sealCredential(one, Shredder2(one), keytab);
    const OpenedCredential opened = lumo::openCredential(sealed.bytes, keytab);
    EXPECT_EQ(opened.user, one);
    EXPECT_EQ(textOf(opened.secret), one);
  }
}

TEST_F(KerberosSealTest, SixtyFourKibibytesOfSecretGoThrough) {
  writeMachineKey();
  const std::string secret(64 * 1024, '\x7f');
  const SealedCredential sealed = lumo::sealCredential("u", Shredder2(secret), keytab);
  EXPECT_EQ(textOf(lumo::openCredential(sealed.bytes, keytab).secret), secret);
}

TEST_F(KerberosSealTest, LongestCredentialIsSealedAndOpenedAndALongerOneRefused) {
  writeMachineKey();
  const std::size_t most = lumo::SEALED_LIMIT - 512;
  const SealedCredential sealed = lumo::sealCredential("user", Shredder2(std::string(most - 4, 's')), keytab);
  EXPECT_LE(sealed.bytes.size(), lumo::SEALED_LIMIT);
  EXPECT_EQ(lumo::openCredential(sealed.bytes, keytab).secret.size(), most - 4);
  try {
    lumo::sealCredential("user", Shredder2(std::string(most - 3, 's')), keytab);
    FAIL() << "no exception";
  } catch (const lumo::BadDataException& failure) {
    EXPECT_STREQ(failure.what(), "The credential is too long: user and password together may have 1048064 bytes");
  }
  EXPECT_EQ(failureOf<lumo::BadDataException>(std::string(lumo::SEALED_LIMIT + 1, 'M'), keytab), DAMAGED_TEXT);
}

TEST_F(KerberosSealTest, EveryCutIsRefused) {
  for (const int type : ALL_TYPES) {
    writeMachineKey(3, type);
    const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
    for (std::size_t length = 0; length < bytes.size(); ++length) {
      EXPECT_EQ(failureOf<lumo::BadDataException>(bytes.substr(0, length), keytab), DAMAGED_TEXT)
          << "type " << type << " cut to " << length;
    }
    EXPECT_EQ(failureOf<lumo::BadDataException>(bytes + '\0', keytab), DAMAGED_TEXT) << "one byte more, type " << type;
  }
}

TEST_F(KerberosSealTest, EveryChangedByteIsRefused) {
  for (const int type : ALL_TYPES) {
    writeMachineKey(3, type);
    const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
    for (std::size_t at = 0; at < bytes.size(); ++at) {
      for (const int mask : {0x01, 0x80, 0xff}) {
        std::string changed = bytes;
        changed[at] = static_cast<char>(changed[at] ^ mask);
        EXPECT_NE(failureOf<lumo::BadDataException>(changed, keytab), "no failure")
            << "type " << type << " byte " << at << " mask " << mask;
      }
    }
  }
}

// A key of another version with the same bytes must not open what names its own version: the header is sealed too.
TEST_F(KerberosSealTest, HeaderCannotBeTurnedToAnotherEntryOfTheSameKey) {
  writeKeytab(keytab, {{MACHINE, 3, 18, "pw"}, {MACHINE, 4, 18, "pw"}});
  std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  ASSERT_EQ(bytes[8], 4);
  bytes[8] = 3;
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab), DAMAGED_TEXT);
}

TEST_F(KerberosSealTest, WrongMagicAndVersionAreNamed) {
  writeMachineKey();
  std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  bytes[0] = 'X';
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab),
            "The file holds no stored credential; store the credential again");
  bytes[0] = 'M';
  bytes[4] = 2;
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab),
            "The stored credential has format version 2, which is not known; store the credential again");
}

TEST_F(KerberosSealTest, NewestKeyVersionAndStrongestPermittedTypeAreUsed) {
  std::vector<KeytabEntry> entries;
  for (const int type : ALL_TYPES) entries.push_back({MACHINE, 5, type, "new"});
  for (const int type : ALL_TYPES) entries.push_back({MACHINE, 4, type, "old"});
  entries.push_back({"host/host1.corp.example.test@CORP.EXAMPLE.TEST", 9, 20, "service"});
  writeKeytab(keytab, entries);
  const std::vector<std::pair<std::string, int>> rows = {
      {"aes128-cts aes256-cts aes256-sha2", 20},  // strength counts, not the order of the list
      {"aes128-cts aes256-cts camellia256-cts", 18}, {"aes128-cts aes128-sha2 camellia256-cts", 26},
      {"aes128-cts aes128-sha2 arcfour-hmac", 19},   {"arcfour-hmac aes128-cts camellia128-cts", 17},
      {"arcfour-hmac camellia128-cts", 25},          {"arcfour-hmac des3-cbc-sha1", 16},
      {"arcfour-hmac arcfour-hmac-exp", 23},
  };
  for (const auto& [types, expected] : rows) {
    permit(types);
    const SealedCredential sealed = lumo::sealCredential("u", Shredder2("s"), keytab);
    EXPECT_EQ(sealed.encType, expected) << types;
    EXPECT_EQ(sealed.keyVersion, 5) << types;
  }
}

TEST_F(KerberosSealTest, WeakTypeIsNotUsedWhenTheSettingForbidsIt) {
  writeMachineKey(3, 24);
  EXPECT_EQ(lumo::sealCredential("u", Shredder2("s"), keytab).encType, 24);
  lumo::Props(false, false).setProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO, "no");
  EXPECT_THROW(lumo::sealCredential("u", Shredder2("s"), keytab), KerberosException);
  lumo::Props(false, false).eraseProperty(lumo::PN::KRB5_ALLOW_WEAK_CRYPTO);
}

TEST_F(KerberosSealTest, NewestVersionWithoutAPermittedTypeIsSaid) {
  writeKeytab(keytab, {{MACHINE, 5, 23, "new"}, {MACHINE, 4, 18, "old"}});
  permit("aes256-cts");
  try {
    lumo::sealCredential("u", Shredder2("s"), keytab);
    FAIL() << "no exception";
  } catch (const KerberosException& failure) {
    EXPECT_EQ(failure.what(), "The keytab " + keytab +
                                  " holds no key of HOST1$@CORP.EXAMPLE.TEST, version 5, of a permitted encryption "
                                  "type; permit its types (permitted_enctypes in krb5.conf)");
  }
}

TEST_F(KerberosSealTest, OlderKeyVersionStillOpens) {
  writeMachineKey(3);
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  writeKeytab(keytab, {{MACHINE, 4, 18, "newer"}, {MACHINE, 3, 18, "pw"}});
  const OpenedCredential opened = lumo::openCredential(bytes, keytab);
  EXPECT_EQ(textOf(opened.secret), "secret");
  EXPECT_EQ(opened.keyVersion, 3);
  EXPECT_EQ(lumo::sealCredential("user", Shredder2("secret"), keytab).keyVersion, 4);
}

TEST_F(KerberosSealTest, VersionThatTheKeytabNoLongerHoldsIsNamed) {
  writeMachineKey(3);
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  writeMachineKey(4);
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab),
            "encrypted with key version 3, which the keytab no longer holds; store the credential again");
  writeMachineKey(3, 17);
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab),
            "encrypted with key version 3 and encryption type 18, which the keytab does not hold; store the credential "
            "again");
}

// After a new join the versions start again: another key under the same number.
TEST_F(KerberosSealTest, OtherKeyUnderTheSameVersionDoesNotOpen) {
  writeMachineKey(2);
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  writeKeytab(keytab, {{MACHINE, 2, 18, "another password"}});
  EXPECT_EQ(failureOf<lumo::BadDataException>(bytes, keytab), DAMAGED_TEXT);
}

TEST_F(KerberosSealTest, KeyOfAFormerAccountOfTheMachineStillOpens) {
  writeMachineKey(2);
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  writeKeytab(keytab, {{"HOST9$@NEW.EXAMPLE.TEST", 2, 18, "other"}, {MACHINE, 2, 18, "pw"}});
  EXPECT_EQ(textOf(lumo::openCredential(bytes, keytab).secret), "secret");
}

TEST_F(KerberosSealTest, KeytabWithoutAMachineKeyIsSaid) {
  writeMachineKey();
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  const std::string expected =
      "The keytab " + keytab + " holds no key of this machine's account; join the machine again";
  for (const std::vector<KeytabEntry>& entries : std::vector<std::vector<KeytabEntry>>{
           {{"host/host1.corp.example.test@CORP.EXAMPLE.TEST", 3, 18, "pw"}},
           {{"HOST1@CORP.EXAMPLE.TEST", 3, 18, "pw"}, {"$@CORP.EXAMPLE.TEST", 3, 18, "pw"}}}) {
    writeKeytab(keytab, entries);
    EXPECT_EQ(failureOf<KerberosException>(bytes, keytab), expected);
    try {
      lumo::sealCredential("u", Shredder2("s"), keytab);
      FAIL() << "no exception";
    } catch (const KerberosException& failure) {
      EXPECT_EQ(failure.what(), expected);
    }
  }
}

TEST_F(KerberosSealTest, MissingAndDamagedKeytabsAreSaid) {
  writeMachineKey();
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  const std::string good = testsupport::readFile(keytab);
  unlink(keytab.c_str());
  EXPECT_EQ(failureOf<KerberosException>(bytes, keytab),
            "The keytab " + keytab + " is missing; join the machine to the domain");
  testsupport::writeFile(keytab, "this is no keytab");
  const std::string text = failureOf<KerberosException>(bytes, keytab);
  EXPECT_THAT(text, HasSubstr("Cannot read the keytab " + keytab + ": "));
  EXPECT_THAT(text, HasSubstr("; repair it or join the machine again"));
#ifdef FERRO_SANITIZED_ADDRESS
  __lsan_disable();  // the library forgets the half of an entry that it could read
#endif
  // However the file is cut, the answer is a LUMOException with words.
  for (std::size_t length = 0; length < good.size(); ++length) {
    testsupport::writeFile(keytab, good.substr(0, length));
    EXPECT_NE(failureOf<LUMOException>(bytes, keytab), "no failure") << length;
  }
#ifdef FERRO_SANITIZED_ADDRESS
  __lsan_enable();
#endif
}

TEST_F(KerberosSealTest, PipeInTheKeytabsPlaceIsSaidAndNotWaitedFor) {
  writeMachineKey();
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  unlink(keytab.c_str());
  ASSERT_EQ(mkfifo(keytab.c_str(), 0600), 0);
  EXPECT_EQ(failureOf<KerberosException>(bytes, keytab),
            "Cannot read the keytab " + keytab + ": it is not a regular file; repair it or join the machine again");
}

TEST_F(KerberosSealTest, DamagedKerberosConfigurationDoesNotStandInTheWayOfOpening) {
  writeMachineKey();
  const std::string bytes = lumo::sealCredential("user", Shredder2("secret"), keytab).bytes;
  testsupport::writeFile(folder.file("krb5.conf"), "[libdefaults]\n broken\n");
  EXPECT_EQ(textOf(lumo::openCredential(bytes, keytab).secret), "secret");
}

}  // namespace
