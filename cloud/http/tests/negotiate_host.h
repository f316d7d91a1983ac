// A private host with a real KDC, and scripted peers that accept tokens with a real keytab.
#pragma once

#include <gssapi/gssapi_ext.h>
#include <gssapi/gssapi_krb5.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <mutex>

#include "basalt/files/base64.h"
#include "base/include/parameter_names.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "testsupport/http_server.h"
#include "testsupport/log_capture.h"
#include "testsupport/memory_directory.h"
#include "testsupport/mit_kdc.h"
#include "testsupport/private_host.h"

namespace negotiatetest {

using testsupport::HttpReply;
using testsupport::httpReply;
using testsupport::HttpRequest;
using testsupport::HttpServer;
using testsupport::tunnelReply;

constexpr char REALM[] = "CORP.EXAMPLE.TEST";
constexpr char KEYTAB[] = "/etc/service.keytab";
constexpr char TARGET[] = "http://server.example.test/";

inline std::string encoded(const std::string& bytes) { return toBase64(bytes.data(), bytes.size()); }

// What the accepting side made of one token.
struct Accepted {
  std::string client;   // empty: refused
  std::string reply;    // bytes of the answering token
  OM_uint32 flags = 0;  // what the client asked for
};

inline Accepted acceptToken(const std::string& token) {
  Accepted accepted;
  OM_uint32 minor = 0;
  gss_key_value_element_desc element = {"keytab", KEYTAB};
  const gss_key_value_set_desc store = {1, &element};
  gss_cred_id_t credential = GSS_C_NO_CREDENTIAL;
  gss_acquire_cred_from(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, GSS_C_NO_OID_SET, GSS_C_ACCEPT, &store, &credential,
                        nullptr, nullptr);
  std::string bytes = fromBase64(token).value_or("");
  gss_buffer_desc input{bytes.size(), bytes.data()};
  gss_buffer_desc output = GSS_C_EMPTY_BUFFER;
  gss_ctx_id_t context = GSS_C_NO_CONTEXT;
  gss_name_t client = GSS_C_NO_NAME;
  const OM_uint32 major = gss_accept_sec_context(&minor, &context, credential, &input, GSS_C_NO_CHANNEL_BINDINGS,
                                                 &client, nullptr, &output, &accepted.flags, nullptr, nullptr);
  if (major == GSS_S_COMPLETE) {
    gss_buffer_desc text = GSS_C_EMPTY_BUFFER;
    gss_display_name(&minor, client, &text, nullptr);
    accepted.client.assign(static_cast<const char*>(text.value), text.length);
    accepted.reply.assign(static_cast<const char*>(output.value), output.length);
    gss_release_buffer(&minor, &text);
  }
  gss_release_buffer(&minor, &output);
  gss_release_name(&minor, &client);
  gss_delete_sec_context(&minor, &context, GSS_C_NO_BUFFER);
  gss_release_cred(&minor, &credential);
  return accepted;
}

// The token of a header value "Negotiate TOKEN", empty for another one.
inline std::string tokenOf(const std::string& value) {
  return value.compare(0, 10, "Negotiate ") == 0 ? value.substr(10) : std::string();
}

class NegotiateRoot : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    kdc = new testsupport::MitKdc(REALM);
    kdc->addUser("alice", "alice-pw");
    kdc->addUser("bob", "b:o%62 \"b\xc3\xa4");
    kdc->addUser("rootuser", "root-pw");
    kdc->addWithKeytab("HTTP/127.0.0.1", KEYTAB);
    kdc->addWithKeytab("HOST1$", lumo::path::MACHINE_KEYTAB);
    kdc->start();
  }
  static void TearDownTestSuite() {
    delete kdc;
    kdc = nullptr;
    // The next suite's KDC has other keys.
    for (const char* file : {KEYTAB, lumo::path::MACHINE_KEYTAB, lumo::path::MACHINE_CCACHE}) unlink(file);
  }

  NegotiateRoot() {
    directory.add("CN=PROXY,DC=corp,DC=example,DC=test", {{"servicePrincipalName", {"HTTP/127.0.0.1"}}});
  }
  ~NegotiateRoot() override { unsetenv("KRB5CCNAME"); }

  // A proxy that lets in whoever brings a good token, and the server behind it.
  HttpServer::Handler negotiateProxy(std::vector<std::string> alsoOffered = {}, bool answersWithToken = false) {
    return [this, alsoOffered, answersWithToken](const HttpRequest& request) {
      if (request.method() != "CONNECT") return httpReply("200 OK", {}, "in");
      const std::string token = tokenOf(request.header("Proxy-Authorization"));
      const Accepted accepted = token.empty() ? Accepted() : acceptToken(token);
      if (!accepted.client.empty()) {
        note(accepted.client);
        if (!answersWithToken) return tunnelReply();
        return HttpReply{"HTTP/1.1 200 Connection established\r\nProxy-Authenticate: Negotiate " +
                             encoded(spoil ? "no token" : accepted.reply) + "\r\n\r\n",
                         HttpReply::KeepOpen};
      }
      std::vector<std::string> lines = {"Proxy-Authenticate: Negotiate"};
      for (const std::string& scheme : alsoOffered) lines.push_back("Proxy-Authenticate: " + scheme);
      return httpReply("407 Proxy Authentication Required", lines);
    };
  }

  // A web server that wants a token: 401 without a good one, else its own token and the page for that client.
  HttpReply answerAtServer(const HttpRequest& request, const std::function<std::string(const std::string&)>& pageFor) {
    const Accepted accepted = acceptToken(tokenOf(request.header("Authorization")));
    if (accepted.client.empty()) return httpReply("401 Unauthorized", {"WWW-Authenticate: Negotiate"});
    note(accepted.client);
    return httpReply("200 OK", {"WWW-Authenticate: Negotiate " + encoded(accepted.reply)}, pageFor(accepted.client));
  }

  void note(const std::string& client) {
    const std::lock_guard<std::mutex> lock(mutex);
    clients.push_back(client);
  }

  // Root's own ticket in the default cache of the process.
  void giveRootATicket() {
    krb5_context context = nullptr;
    krb5_principal root = nullptr;
    krb5_creds ticket{};
    ASSERT_EQ(krb5_init_context(&context), 0);
    ASSERT_EQ(krb5_parse_name(context, "rootuser@CORP.EXAMPLE.TEST", &root), 0);
    ASSERT_EQ(krb5_get_init_creds_password(context, &ticket, root, "root-pw", nullptr, nullptr, 0, nullptr, nullptr),
              0);
    krb5_ccache cache = nullptr;
    ASSERT_EQ(krb5_cc_resolve(context, "FILE:/run/root.ccache", &cache), 0);
    ASSERT_EQ(krb5_cc_initialize(context, cache, root), 0);
    ASSERT_EQ(krb5_cc_store_cred(context, cache, &ticket), 0);
    krb5_cc_close(context, cache);
    krb5_free_cred_contents(context, &ticket);
    krb5_free_principal(context, root);
    krb5_free_context(context);
    setenv("KRB5CCNAME", "FILE:/run/root.ccache", 1);
  }

  static inline testsupport::MitKdc* kdc = nullptr;
  testsupport::MemoryDirectory directory{"corp.example.test"};
  testsupport::DirectoryInForce inForce{directory};
  testsupport::LogCapture log{"TRACE"};
  std::mutex mutex;
  std::vector<std::string> clients;
  bool spoil = false;
};

inline std::vector<std::string> connectTokens(const HttpServer& proxy) {
  std::vector<std::string> tokens;
  for (const HttpRequest& request : proxy.requests()) {
    if (request.method() == "CONNECT") tokens.push_back(tokenOf(request.header("Proxy-Authorization")));
  }
  return tokens;
}

}  // namespace negotiatetest
