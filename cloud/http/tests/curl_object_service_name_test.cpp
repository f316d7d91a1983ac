// For which service name of a proxy the directory is asked.
#include <gmock/gmock.h>

#include <utility>
#include <vector>

#include "cloud/include/curl_object.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/memory_directory.h"

using testing::HasSubstr;
using testsupport::MemoryDirectory;

TEST(CurlObjectServiceName, IsMadeOfWhatStandsBeforeTheFirstColon) {
  const testsupport::FakeCredentialSource source;
  MemoryDirectory directory("example.test");
  const testsupport::DirectoryInForce inForce(directory);
  const std::pair<const char*, const char*> proxies[] = {
      {"proxy.example.test:3128", "=HTTP/proxy.example.test)"},
      {"proxy.example.test", "=HTTP/proxy.example.test)"},
      {"http://proxy.example.test:3128", "=HTTP/http)"},  // a scheme counts as the host
  };
  for (const auto& [proxy, asked] : proxies) {
    directory.forgetQuestions();
    CurlObject().setProxy(proxy, "basic", "alice", lumo::Shredder2("secret"));
    const std::vector<MemoryDirectory::Search> searches = directory.searches();
    EXPECT_FALSE(searches.empty()) << proxy;
    for (const MemoryDirectory::Search& search : searches) EXPECT_THAT(search.what.filter, HasSubstr(asked)) << proxy;
  }
}
