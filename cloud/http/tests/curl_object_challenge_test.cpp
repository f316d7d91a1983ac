#include "cloud/http/curl_object_challenge.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>

#include "basalt/files/base64.h"

namespace {

constexpr long BASIC = static_cast<long>(CURLAUTH_BASIC);
constexpr long DIGEST = static_cast<long>(CURLAUTH_DIGEST);
constexpr long NTLM = static_cast<long>(CURLAUTH_NTLM);
constexpr long NEGOTIATE = static_cast<long>(CURLAUTH_NEGOTIATE);
constexpr long ANY = static_cast<long>(CURLAUTH_ANY);

// A type-2 message whose flags are NTLM2 and target information, with ten bytes of that at the end.
std::string goodMessage() {
  return std::string("NTLMSSP\0\x02\0\0\0\0\0\0\0\x30\0\0\0\x01\x02\x88\0NNNNNNNN", 32) +
         std::string("\0\0\0\0\0\0\0\0\x0a\0\x0a\0\x30\0\0\0", 16) + std::string("\x02\0\x02\0X\0\0\0\0\0", 10);
}

std::string faultOf(const std::string& message) {
  const char* fault = ntlmFault(" NTLM " + toBase64(message.data(), message.size()) + "\r\n");
  return fault == nullptr ? "" : fault;
}

std::string withByte(std::string message, std::size_t place, int value) {
  message.at(place) = static_cast<char>(value);
  return message;
}

}  // namespace

TEST(OfferedSchemes, AreReadAsTheStandardWritesThem) {
  struct Offer {
    std::string_view value;
    long schemes;
  };
  const Offer offers[] = {
      {"", 0},
      {" \r\n", 0},
      {" Basic realm=\"x\"\r\n", BASIC},
      {"Negotiate", NEGOTIATE},
      {"\tnegotiate\r\n", NEGOTIATE},
      {" NTLM\r\n", NTLM},
      {" Digest realm=\"x\", nonce=\"n\", qop=\"auth\"\r\n", DIGEST},
      {" Negotiate, NTLM,Basic realm=\"x\"\r\n", NEGOTIATE | NTLM | BASIC},
      {" Basic realm=\"x\", NEGOTIATE\r\n", NEGOTIATE | BASIC},
      {" ,, Basic realm=\"x\" ,\t, Digest realm=\"y\"", BASIC | DIGEST},
      {" Negotiate oYG2==, Basic", NEGOTIATE | BASIC},
      {" Basic realm=\"Negotiate\"", BASIC},
      {" Basic realm=\"Sales, Negotiate, NTLM\"", BASIC},
      {" Basic realm=\"a \\\", Negotiate \\\\\"", BASIC},
      {" Basic realm=\"a\\\\\", Negotiate", BASIC | NEGOTIATE},
      {" Basic realm=Negotiate", BASIC},
      {" Basic realm=\"x\", Negotiate=1", BASIC},
      {" Basic \"x\", Negotiate", BASIC | NEGOTIATE},
      {" \"Negotiate\"", 0},
      {" Basic realm=\"never ends, Negotiate", BASIC | NEGOTIATE},
      {" Negotiated, XBasic, Digest2, NTLMv2", 0},
      {" Bearer, Basic", BASIC},
      {std::string_view(" Basic\0, Negotiate", 18), BASIC | NEGOTIATE},
  };
  for (const Offer& offer : offers) EXPECT_EQ(offeredSchemes(offer.value), offer.schemes) << offer.value;
}

TEST(BasicAsAnAnswer, IsLeftToLibcurlWhereNothingBetterWasOffered) {
  EXPECT_FALSE(answersWithBasic(ANY, BASIC, BASIC, BASIC));
  EXPECT_FALSE(answersWithBasic(BASIC, BASIC | NEGOTIATE, BASIC | NEGOTIATE, BASIC | NEGOTIATE)) << "Basic is wanted";
  EXPECT_FALSE(answersWithBasic(NTLM, BASIC | NTLM, BASIC | NTLM, BASIC)) << "Basic may not be used";
  EXPECT_FALSE(answersWithBasic(0, BASIC | NTLM, BASIC | NTLM, BASIC));
  EXPECT_FALSE(answersWithBasic(ANY, 0, 0, 0));
}

TEST(BasicAsAnAnswer, IsBarredWhereSomethingBetterCannotBeUsed) {
  for (const long better : {NEGOTIATE, DIGEST, NTLM}) {
    EXPECT_TRUE(answersWithBasic(ANY, better | BASIC, better | BASIC, BASIC)) << better << ": libcurl lacks it";
    EXPECT_TRUE(answersWithBasic(ANY & ~better, better | BASIC, better | BASIC, better | BASIC)) << "not in the mask";
    EXPECT_TRUE(answersWithBasic(ANY, better | BASIC, BASIC, better | BASIC)) << "offered before";
    EXPECT_FALSE(answersWithBasic(ANY, better | BASIC, better | BASIC, better | BASIC)) << "libcurl answers with it";
    EXPECT_FALSE(answersWithBasic(ANY, better, better, 0)) << "no Basic is offered";
    EXPECT_TRUE(answersWithBasic(ANY, better, better, BASIC)) << "libcurl has read what we have not";
  }
  EXPECT_FALSE(answersWithBasic(ANY, NEGOTIATE | NTLM | BASIC, NEGOTIATE | NTLM | BASIC, NTLM | BASIC));
}

TEST(NtlmChallenge, IsGoodWithFlagAndTargetInformation) {
  EXPECT_EQ(faultOf(goodMessage()), "");
  for (const char* value : {"", " NTLM\r\n", " NTLMv2 TlRM", " Basic realm=\"x\"", " Negotiate TlRM", " NTLM=TlRM"}) {
    EXPECT_EQ(ntlmFault(value), nullptr) << value << ": none at all";
  }
}

TEST(NtlmChallenge, IsFoundWhereLibcurlFindsIt) {
  for (const char* value :
       {" ntlm TlRM", "NTLM\tTlRM\r\n", " Negotiate, NTLM TlRM", " Basic realm=\"x, NTLM TlRM\"", ",, Ntlm   TlRM ,"}) {
    EXPECT_STREQ(ntlmFault(value), "that is malformed") << value;
  }
  EXPECT_STREQ(ntlmFault(std::string_view(" NTLM\0TlRM", 10)), "that is malformed");
}

TEST(NtlmChallenge, IsWeakWithoutFlagOrTargetInformation) {
  const std::string good = goodMessage();
  EXPECT_EQ(faultOf(withByte(good, 22, 0x80)), "without the NTLM2 flag");
  EXPECT_EQ(faultOf(withByte(good, 22, 0x08)), "without target information");
  EXPECT_EQ(faultOf(withByte(good, 40, 0)), "without target information");
  EXPECT_EQ(faultOf(good.substr(0, 47)), "without target information");
  EXPECT_EQ(faultOf(good.substr(0, 32)), "without target information");
}

TEST(NtlmChallenge, IsMalformedWhenItPointsOutsideItself) {
  const std::string good = goodMessage();
  EXPECT_EQ(faultOf(withByte(good, 40, 11)), "that is malformed") << "one byte too long";
  EXPECT_EQ(faultOf(withByte(good, 41, 1)), "that is malformed") << "the length's second byte";
  EXPECT_EQ(faultOf(withByte(good, 44, 49)), "that is malformed");
  EXPECT_EQ(faultOf(withByte(good, 47, 0xff)), "that is malformed") << "the offset's last byte";
  EXPECT_EQ(faultOf(withByte(withByte(good, 40, 1), 44, 57)), "") << "its last byte";
  EXPECT_EQ(faultOf(withByte(withByte(good, 40, 1), 44, 58)), "that is malformed");
  EXPECT_EQ(faultOf(good.substr(0, 31)), "that is malformed");
  EXPECT_EQ(faultOf(withByte(good, 8, 3)), "that is malformed") << "another message";
  EXPECT_EQ(faultOf(withByte(good, 11, 1)), "that is malformed");
  EXPECT_EQ(faultOf(withByte(good, 0, 'n')), "that is malformed");
  for (const char* text : {"T", "====", "TlRMTVNTUAAC", "TlRM TVNTUAAC", "\x80\xff"}) {
    EXPECT_STREQ(ntlmFault(std::string(" NTLM ") + text), "that is malformed") << text;
  }
}

TEST(NtlmChallenge, OfAnyBytesIsJudgedWithoutHarm) {
  std::mt19937 random(20240117);  // the same bytes in each run
  const std::string good = goodMessage();
  for (int i = 0; i < 20000; ++i) {
    std::string message = good.substr(0, random() % (good.size() + 1));
    for (unsigned changes = random() % 4; changes > 0 && !message.empty(); --changes) {
      message[random() % message.size()] = static_cast<char>(random());
    }
    const std::string fault = faultOf(message);
    EXPECT_TRUE(message != good || fault.empty());
    std::string value(random() % 40, '\0');
    for (char& c : value) c = " ,\"\\NTLM=\0\tBasic"[random() % 17];
    ntlmFault(value);
    offeredSchemes(value);
  }
}
