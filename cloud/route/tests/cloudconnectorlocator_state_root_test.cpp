// What one process remembers and the next one reads, and a store that is damaged.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "basalt/settings/settings_store.h"
#include "base/include/parameter_names.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"
#include "testsupport/private_host.h"

namespace {

using locatortest::connectorRecord;
using locatortest::Texts;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char ONE[] = "https://pod.example.test/|Berlin|one.test|TENANT|8080|80|8443\n";
constexpr char TWO[] = "https://pod.example.test/|Hamburg|two.test|TENANT|8080|80|8443\n";
constexpr char THREE[] = "https://pod.example.test/|Berlin|three.test|TENANT|8080|80|8443\n";

class ConnectorStore : private testsupport::CleanPrivateHost, public locatortest::WaitingLocatorTest {
 protected:
  static std::string state() { return lumo::GetSetting(SETTING_CLOUD_CONNECTORS, "none", true); }
  static std::string file() { return std::string(lumo::path::SETTINGS_STORE) + SETTING_CLOUD_CONNECTORS; }
  static void put(const std::string& content, unsigned mode = 0600) {
    std::filesystem::create_directories(lumo::path::SETTINGS_STORE);
    testsupport::writeFile(file(), content, mode);
  }
};

TEST_F(ConnectorStore, HoldsTheThreeListsInTheirOrder) {
  tryInSite({"one.test"});
  tryElsewhere({"two.test"});
  know("three.test");
  locator.discardedList = {"three.test"};
  locator.currentSiteUnusedList = locator.invalidList = {{"https://other.test/", "four.test"}};
  know("four.test");
  locator.updateKsetFile();
  EXPECT_EQ(state(), std::string(ONE) + TWO + THREE);
  EXPECT_THAT(logged(), ElementsAre("DEBUG Update cloud connectors kset file."));
}

TEST_F(ConnectorStore, SkipsWhatHasNoRecordAndSaysSo) {
  locator.currentSiteTryList = {"a.test", "one.test"};
  locator.otherSiteTryList = {"b.test"};
  locator.discardedList = {"c.test"};
  know("one.test");
  locator.updateKsetFile();
  EXPECT_EQ(state(), ONE);
  EXPECT_THAT(loggedWith("kset"), ElementsAre("DEBUG Update cloud connectors kset file.",
                                              "DEBUG Can't write connector(a.test) of current site into kset file.",
                                              "DEBUG Can't write connector(b.test) of other sites into kset file.",
                                              "DEBUG Can't write connector(c.test) of other sites into kset file."));
  EXPECT_TRUE(refreshWaits(900));
}

TEST_F(ConnectorStore, IsEmptiedWhereThereIsNothing) {
  put(ONE);
  locator.updateKsetFile();
  EXPECT_EQ(testsupport::readFile(file()), "\n");
}

TEST_F(ConnectorStore, GivesTheNextProcessTheConnectorInUse) {
  tryInSite({"one.test", "three.test"});
  tryElsewhere({"two.test"});
  locator.updateKsetFile();
  logged();
  CloudConnectorLocatorAccess next("https://zone.test/");
  EXPECT_EQ(next.currentConnector, "one.test");
  EXPECT_EQ(next.cloudUrl, "https://pod.example.test/");
  EXPECT_EQ(next.zoneCloudUrl, "https://zone.test/");
  EXPECT_THAT(next.connectors, SizeIs(1));
  EXPECT_THAT(next.currentSiteTryList, IsEmpty());
  EXPECT_THAT(next.otherSiteTryList, IsEmpty());
  EXPECT_THAT(next.discardedList, IsEmpty());
  EXPECT_EQ(next.locator.getCloudConnector(), "one.test:8080");
  std::string written, read;
  CloudConnectorLocatorAccess::appendKsetLine(written, connectorRecord("one.test"));
  CloudConnectorLocatorAccess::appendKsetLine(read, next.connectors.at("one.test"));
  EXPECT_EQ(read, written);
  EXPECT_THAT(logged(), ElementsAre("DEBUG Get cloud connectors info from kset.", "DEBUG Getting preferred connector",
                                    "DEBUG Current cloud URL is : https://pod.example.test/",
                                    "DEBUG Current cloud connector is : one.test",
                                    "DEBUG getCloudConnector: current cloud connector host DC FQDN=one.test"));
}

TEST_F(ConnectorStore, KnowsNoPriorConnectorsOnceItWasReadAnew) {
  put(ONE);
  know("three.test");
  locator.readKset();
  EXPECT_THAT(locator.connectors, SizeIs(1));
  EXPECT_EQ(locator.currentConnector, "one.test");
}

TEST_F(ConnectorStore, NamesTheNextConnectorAfterADiscardAndStaysWhereAllHaveFailed) {
  tryInSite({"one.test", "three.test"});
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(state(), std::string(THREE) + ONE);
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(state(), std::string(THREE) + ONE);
}

TEST_F(ConnectorStore, WithoutAUsableLineLeavesTheLocatorEmpty) {
  for (const char* noise : {"no fields\n", "|||||||\n", "a|b|c|d|e|f\n", "\x01\x02\xff\xfe\n"}) {
    put(noise);
    logged();
    CloudConnectorLocatorAccess next("https://zone.test/");
    EXPECT_EQ(next.currentConnector, "");
    EXPECT_EQ(next.cloudUrl, "");
    EXPECT_THAT(next.connectors, IsEmpty());
    EXPECT_THAT(logged(), ElementsAre("DEBUG Get cloud connectors info from kset."));
  }
}

TEST_F(ConnectorStore, ThatIsAbsentOrEmptyIsSilent) {
  const CloudConnectorLocatorAccess absent;
  put("");
  const CloudConnectorLocatorAccess empty;
  EXPECT_THAT(logged(), IsEmpty());
}

// One record, and a locator without connectors.
class DamagedStore : public ConnectorStore {
 protected:
  void expectOneRecord() {
    logged();
    CloudConnectorLocatorAccess next;
    EXPECT_EQ(next.currentConnector, "");
    EXPECT_THAT(next.connectors, IsEmpty());
    const Texts records = logged();
    ASSERT_THAT(records, SizeIs(1));
    EXPECT_THAT(records[0], StartsWith("ERROR The remembered connectors cannot be read: "));
  }
};

TEST_F(DamagedStore, OfAForeignOwnerIsNotRead) {
  put(ONE);
  ASSERT_EQ(chown(file().c_str(), 1000, 1000), 0);
  expectOneRecord();
}

TEST_F(DamagedStore, OpenToOthersIsNotRead) {
  put(ONE, 0600);
  ASSERT_EQ(chmod(file().c_str(), 0622), 0);
  expectOneRecord();
}

TEST_F(DamagedStore, ThatIsALinkOrAFolderIsNotRead) {
  put(ONE);
  std::filesystem::rename(file(), "/var/morvand/elsewhere");
  ASSERT_EQ(symlink("/var/morvand/elsewhere", file().c_str()), 0);
  expectOneRecord();
  std::filesystem::remove(file());
  std::filesystem::create_directory(file());
  expectOneRecord();
}

TEST_F(DamagedStore, IsNoReasonNotToDiscard) {
  tryInSite({"one.test", "three.test"});
  std::filesystem::create_directories(file());
  logged();
  locator.locator.discardCurrentCloudConnector();
  EXPECT_EQ(locator.locator.getCloudConnector(), "three.test:8080");
  EXPECT_THAT(logged(), Contains(StartsWith("ERROR The connectors cannot be remembered: ")));
}

TEST_F(DamagedStore, ThatCannotBeWrittenFailsTheRefreshAndLeavesTheFormerState) {
  put(std::string(ONE) + "\n");  // the last newline is the file's
  addConnector("NEW", locatortest::bothServices());
  testsupport::mountReadOnly(lumo::path::SETTINGS_STORE);
  EXPECT_THROW(locator.locator.searchCloudConnetors(locatortest::POD, true), LUMOException);
  EXPECT_EQ(locator.locator.getCloudConnector(), "new.forest.test:8080");
  EXPECT_EQ(state(), ONE);
}

TEST_F(ConnectorStore, RefreshIsAskedForWhereAllOfThePlatformAreUnfit) {
  addConnector("WEB", locatortest::with(locatortest::bothServices(), "morvane.core.iwa.enabled", "False"));
  locator.locator.searchCloudConnetors(locatortest::POD, true);
  EXPECT_THAT(locator.discardedList, ElementsAre("web.forest.test"));
  EXPECT_TRUE(refreshWaits(900));
}

}  // namespace
