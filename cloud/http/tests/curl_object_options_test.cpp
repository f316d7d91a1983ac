#include "cloud/http/curl_object_internal.h"
#include "cloud/http/curl_object_layer.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/http/tests/curl_words.h"

using testing::ElementsAre;
using testing::Pair;

TEST(ProxyAuthTypes, MapsNamesToLibcurlsMasks) {
  EXPECT_THAT(proxyAuthTypes, ElementsAre(Pair("", 0), Pair("anyauth", -17), Pair("basic", 1), Pair("digest", 2),
                                          Pair("negotiate", 4), Pair("ntlm", 8)));
}

TEST_F(CurlObjectTest, NewObjectHasItsDefaultsAndNoCertificateStore) {
  const CurlObject object;
  EXPECT_NE(object.handle, nullptr);
  EXPECT_EQ(object.recordedOptions(), (std::set<int>{13, 64, 81, 99, 10031}));
  EXPECT_TRUE(object.headers.empty());
  EXPECT_EQ(object.serverGssCallbacks.kdcLocator, nullptr);
}

TEST_F(CurlObjectTest, SetOptRecordsTheNumberOnce) {
  CurlObject object;
  object.setOpt(CURLOPT_VERBOSE, 1);
  object.setOpt(CURLOPT_VERBOSE, 0);
  object.setOpt(CURLOPT_CAINFO, std::string("/nowhere"));
  object.setOpt(CURLOPT_DEBUGDATA, static_cast<void*>(&object));
  object.setOpt(CURLOPT_DEBUGFUNCTION, &CurlObject::debugCallback);
  EXPECT_EQ(object.recordedOptions(),
            defaultsAnd({CURLOPT_VERBOSE, CURLOPT_CAINFO, CURLOPT_DEBUGDATA, CURLOPT_DEBUGFUNCTION}));
}

TEST_F(CurlObjectTest, RefusedOptionThrowsAndIsNotRecorded) {
  CurlObject object;
  EXPECT_EQ(curlFailure([&] { object.setOpt(9999, 1); }),
            "CurlException -1 " + curltest::setOptFailed(CURLE_UNKNOWN_OPTION));
  EXPECT_EQ(curlFailure([&] { object.setOpt(CURLOPT_TIMEOUT, -1); }),
            "CurlException -1 " + curltest::setOptFailed(CURLE_BAD_FUNCTION_ARGUMENT));
  EXPECT_EQ(object.recordedOptions(), defaults);
}

TEST_F(CurlObjectTest, ClearOptOfAnOptionNeverSetLeavesTheHandleAlone) {
  CurlObject object;
  // libcurl would refuse the number; it is not asked.
  EXPECT_NO_THROW(object.clearOpt(9999));
  EXPECT_EQ(object.recordedOptions(), defaults);
}

TEST_F(CurlObjectTest, ClearOptForgetsTheNumberAndTheValue) {
  CurlObject object;
  object.setOpt(CURLOPT_CAINFO, "/nowhere");
  object.clearOpt(CURLOPT_CAINFO);
  EXPECT_EQ(object.recordedOptions(), defaults);
}

TEST_F(CurlObjectTest, ClearOptThatLibcurlRefusesThrowsAndForgetsTheNumber) {
  CurlObject object;
  object.setOpt(CURLOPT_SSLVERSION, CURL_SSLVERSION_TLSv1_2);
  object.setOpt(CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
  object.setOpt(CURLOPT_ALTSVC_CTRL, CURLALTSVC_H1);
  EXPECT_EQ(curlFailure([&] { object.clearOpt(CURLOPT_ALTSVC_CTRL); }),
            "CurlException -1 curl error occurred in curl_easy_setopt to clear option: " +
                curltest::curlWords(CURLE_BAD_FUNCTION_ARGUMENT));
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_SSLVERSION, CURLOPT_HTTP_VERSION}));
}

TEST_F(CurlObjectTest, MessageHoldsAtMost511Characters) {
  EXPECT_EQ(curlFailure([] { LUMO_THROW(lumo::CurlException, -1, "%s", std::string(600, 'x').c_str()); }),
            "CurlException -1 " + std::string(511, 'x'));
}

TEST_F(CurlObjectTest, OwnOptionsAreKeptAndNeverReachLibcurl) {
  CurlObject object;
  object.setOpt(CURLOPT_PROXY_GSS_SPN, "HTTP/proxy.example.test");
  object.setOpt(CURLOPT_PROXY_GSS_CRED, gss_cred_id_t{GSS_C_NO_CREDENTIAL});
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_FUNCTION, &proxyGssSetup);
  object.setOpt(CURLOPT_PROXY_GSS_SETUP_DATA, &object.serverGssCallbacks);
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({10035, 10055, 10067, 20066}));
  for (const int option : {10035, 10055, 10067, 20066}) object.clearOpt(option);
  EXPECT_EQ(object.recordedOptions(), defaults);
}

TEST_F(CurlObjectTest, OwnOptionWithAValueOfAnotherKindIsRefused) {
  CurlObject object;
  const std::string refused = "CurlException -1 " + curltest::setOptFailed(CURLE_BAD_FUNCTION_ARGUMENT);
  EXPECT_EQ(curlFailure([&] { object.setOpt(CURLOPT_PROXY_GSS_SPN, 1); }), refused);
  EXPECT_EQ(curlFailure([&] { object.setOpt(CURLOPT_PROXY_GSS_CRED, "text"); }), refused);
  EXPECT_EQ(curlFailure([&] { object.setOpt(CURLOPT_PROXY_GSS_SPN, &proxyGssSetup); }), refused);
  EXPECT_EQ(curlFailure([&] { object.setOpt(CURLOPT_PROXY_GSS_CRED, static_cast<void*>(&object)); }), refused);
  EXPECT_EQ(object.recordedOptions(), defaults);
}

TEST_F(CurlObjectTest, EmptyProxyLeavesOnlyTheTunnelSwitch) {
  CurlObject object;
  object.setProxy("", "negotiate", "alice", lumo::Shredder2("secret"));
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_TRUE(source.requests.empty());
}

TEST_F(CurlObjectTest, ProxyWithoutAuthTypeSetsProxyAndTunnelOnly) {
  CurlObject object;
  object.setProxy("proxy.example.test:3128", "", "alice", lumo::Shredder2("secret"));
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_HTTPPROXYTUNNEL}));
  EXPECT_EQ(directory.opened, 0);
}

TEST_F(CurlObjectTest, EveryAuthTypeSetsTheServiceName) {
  for (const char* type : {"basic", "digest", "NTLM", "AnyAuth", "kerberos"}) {
    CurlObject object;
    object.setProxy("proxy.example.test:3128", type, "alice", lumo::Shredder2("secret"));
    EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD,
                                                     CURLOPT_PROXY_GSS_SPN, CURLOPT_HTTPPROXYTUNNEL}))
        << type;
  }
  EXPECT_TRUE(source.requests.empty()) << "no ticket before a proxy asked for one";
}

TEST_F(CurlObjectTest, NegotiateAsksForATicketAndSetsTheCredential) {
  CurlObject object;
  object.setProxy("proxy.example.test:3128", "Negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  ASSERT_EQ(source.requests.size(), 1u);
  EXPECT_EQ(source.requests[0].principal, "alice@EXAMPLE.TEST");
  EXPECT_EQ(source.requests[0].password, "secret");
  EXPECT_EQ(object.recordedOptions(),
            defaultsAnd({CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD, CURLOPT_PROXY_GSS_SPN,
                         CURLOPT_PROXY_GSS_CRED, CURLOPT_PROXY_GSS_SETUP_FUNCTION, CURLOPT_PROXY_GSS_SETUP_DATA,
                         CURLOPT_HTTPPROXYTUNNEL}));
}

TEST_F(CurlObjectTest, NegotiateWithoutATicketSetsNoCredential) {
  source.result = KRB5KDC_ERR_PREAUTH_FAILED;
  CurlObject object;
  object.setProxy("proxy.example.test:3128", "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("wrong"));
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_PROXY, CURLOPT_PROXYAUTH, CURLOPT_PROXYUSERPWD,
                                                   CURLOPT_PROXY_GSS_SPN, CURLOPT_HTTPPROXYTUNNEL}));
}

TEST_F(CurlObjectTest, SetProxyAndClearProxyTakeTheFormerProxyAway) {
  CurlObject object;
  object.setProxy("proxy.example.test:3128", "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
  object.setProxy("", "", "", lumo::Shredder2());
  EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}));
  for (const bool clearUserCache : {false, true}) {
    object.setProxy("proxy.example.test:3128", "negotiate", "alice@EXAMPLE.TEST", lumo::Shredder2("secret"));
    object.clearProxy(clearUserCache);
    EXPECT_EQ(object.recordedOptions(), defaultsAnd({CURLOPT_HTTPPROXYTUNNEL}));
  }
}

TEST_F(CurlObjectTest, DirectoryThatCannotBeReachedStopsSetProxy) {
  source.machineCacheName.clear();
  CurlObject object;
  EXPECT_THROW(object.setProxy("proxy.example.test:3128", "basic", "alice", lumo::Shredder2("secret")),
               KerberosException);
}

TEST(RequireNtlm, RefusesNtlmWhereLibcurlHasNone) {
  EXPECT_NO_THROW(requireNtlm(8, CURL_VERSION_NTLM));
  EXPECT_NO_THROW(requireNtlm(1, 0));
  EXPECT_NO_THROW(requireNtlm(-17, 0));
  EXPECT_EQ(curlFailure([] { requireNtlm(8, ~CURL_VERSION_NTLM); }),
            "CurlException -1 The authentication type 'ntlm' cannot be used: the libcurl of this host is built without "
            "NTLM. Configure another type.");
}

TEST(PercentEscape, EscapesEverythingButUnreservedCharacters) {
  const std::string plain = "azAZ09-._~";
  EXPECT_STREQ(percentEscape(plain.data(), plain.size()).c_str(), plain.c_str());
  const std::string hostile("a%41:@/ \xc3\xa4\x01\xff", 12);
  EXPECT_STREQ(percentEscape(hostile.data(), hostile.size()).c_str(), "a%2541%3A%40%2F%20%C3%A4%01%FF");
  EXPECT_TRUE(percentEscape("", 0).empty());
}
