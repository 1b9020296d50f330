#include "app/core/domain_controller.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "app/core/materialized_items_collector.h"
#include "app/core/testing/fake_file_provider_manager.h"
#include "synckit/base/cancellation.h"
#include "synckit/testing/fake_http_transport.h"
#include "synckit/testing/in_memory_token_store.h"
#include "synckit/testing/temporary_directory.h"
#include "synckit/testing/thrown_by.h"

namespace halvark {
namespace {

using synckit::SyncItemIdentifier;
using synckit::testing::FakeHTTPTransport;
using synckit::testing::thrownBy;
using testing::FakeFileProviderManager;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Op = FakeFileProviderManager::Operation;

// The log goes to the journal under systemd; these tests read it from
// standard error, so the choice must be made before the first line.
const bool logToStandardError = [] { return ::unsetenv("JOURNAL_STREAM") == 0; }();

constexpr const char* brainId = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
const FileProviderDomain halvarkDomain{"halvark", "Halvark"};

class DomainControllerTest : public ::testing::Test {
 protected:
  void serveBrain(const std::string& name) {
    transport.setHandler([name](const synckit::HTTPRequest&) {
      return FakeHTTPTransport::json(200, std::string(R"({"brains":[{"id":")") + brainId +
                                              R"(","teamId":"t","name":")" + name +
                                              R"(","slug":"notes"}]})");
    });
  }

  std::string baseURL = "https://sync.example.test";
  synckit::testing::TemporaryDirectory directory;
  synckit::MetadataStore store{directory / "sync.sqlite"};
  FakeHTTPTransport transport;
  synckit::testing::InMemoryTokenStore tokens{synckit::TokenSet{"a1", "r1"}};
  synckit::TokenManager tokenManager{baseURL, transport, tokens, [] { return std::string("c"); }};
  synckit::SyncAPIClient api{baseURL, transport, tokenManager};
  FakeFileProviderManager files;
  DomainController controller{store, api, tokenManager, files};
};

TEST_F(DomainControllerTest, ActivateRegistersAndSignalsOnlyWhenTheBrainsChanged) {
  ASSERT_TRUE(logToStandardError);
  EXPECT_EQ(controller.domain(), halvarkDomain);
  transport.setHandler([](const synckit::HTTPRequest&) -> synckit::HTTPResponse {
    throw synckit::TransportError(synckit::TransportError::Kind::cannotConnect, "refused");
  });
  ::testing::internal::CaptureStderr();
  controller.activate();
  EXPECT_THAT(
      ::testing::internal::GetCapturedStderr(),
      HasSubstr(
          "dev.halvark.Halvark[domain] error: Could not refresh brains, using the stored list: "));
  EXPECT_EQ(files.registeredDomains(), std::vector{halvarkDomain});
  EXPECT_EQ(files.workingSetSignals(), 0);

  serveBrain("Notes");
  controller.activate();
  EXPECT_EQ(files.workingSetSignals(), 1);
  ASSERT_EQ(store.brains().size(), 1u);
  EXPECT_EQ(store.brains()[0].name, "Notes");
  controller.activate();
  EXPECT_EQ(files.workingSetSignals(), 1);
  EXPECT_FALSE(controller.refreshBrains());
  serveBrain("Renamed");
  EXPECT_TRUE(controller.refreshBrains());
}

TEST_F(DomainControllerTest, ActivateThrowsSignedOutAndTheRegistrationError) {
  tokens.clear();
  auto signedOut = thrownBy<synckit::TokenManagerError>([&] { controller.activate(); });
  EXPECT_EQ(signedOut.kind(), synckit::TokenManagerError::Kind::signedOut);
  EXPECT_THAT(files.addedDomains(), IsEmpty());

  tokens.save({"a1", "r1"});
  serveBrain("Notes");
  files.fail(Op::addDomain, std::make_exception_ptr(synckit::Error("not now")));
  EXPECT_EQ(thrownBy<synckit::Error>([&] { controller.activate(); }).description(), "not now");
  EXPECT_EQ(store.brains().size(), 1u);
  EXPECT_EQ(files.workingSetSignals(), 0);
}

TEST_F(DomainControllerTest, DeactivateRemovesOnlyOurDomainAndOnlyLogsFailures) {
  ::testing::internal::CaptureStderr();
  controller.deactivate();
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_THAT(files.removedDomains(), IsEmpty());

  const FileProviderDomain other{"other", "Other"};
  files.addDomain(other);
  files.addDomain(halvarkDomain);
  controller.deactivate();
  EXPECT_EQ(files.registeredDomains(), std::vector{other});

  files.addDomain(halvarkDomain);
  files.fail(Op::removeDomain);
  ::testing::internal::CaptureStderr();
  controller.deactivate();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("Could not remove the domain: The file provider is not available."));
}

TEST_F(DomainControllerTest, MaterializedItemsOfAllPagesWithUnparsableOnesDropped) {
  const std::string node = std::string("node:") + brainId + ":n_1";
  const std::string brain = std::string("brain:") + brainId;
  files.setMaterializedPages({{node, "garbage"}, {}, {brain, "node:x:y"}});
  files.setDeliversFromAnotherThread(true);
  EXPECT_EQ(
      controller.materializedIdentifiers(),
      (std::unordered_set{*SyncItemIdentifier::parse(node), *SyncItemIdentifier::parse(brain)}));

  files.setDeliversFromAnotherThread(false);
  auto domainManager = files.manager(halvarkDomain);
  EXPECT_EQ(MaterializedItemsCollector(domainManager->materializedItemsEnumerator()).collect(),
            (std::vector<std::string>{node, "garbage", brain, "node:x:y"}));
  EXPECT_THAT(MaterializedItemsCollector(nullptr).collect(), IsEmpty());

  // A provider that gave up is a failed listing, not a stop of the caller.
  files.failMaterializedPage(2, std::make_exception_ptr(synckit::CancellationError()));
  ::testing::internal::CaptureStderr();
  EXPECT_THAT(controller.materializedIdentifiers(), IsEmpty());
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("Could not list materialized items: The operation was cancelled."));
}

TEST_F(DomainControllerTest, AStopEndsTheWaitForMaterializedItems) {
  files.setMaterializedPages({{"root"}, {"root"}});
  files.stallMaterializedPage(1);
  bool cancelled = false;
  std::jthread caller([&](std::stop_token stop) {
    synckit::CancellationScope scope(stop);
    try {
      controller.materializedIdentifiers();
    } catch (const synckit::CancellationError&) {
      cancelled = true;
    }
  });
  while (files.materializedEnumerations() == 0) std::this_thread::yield();
  caller.request_stop();
  caller.join();
  EXPECT_TRUE(cancelled);
}

TEST_F(DomainControllerTest, WithoutAManagerNothingIsSignalledOrMaterialized) {
  files.setHasDomainManager(false);
  files.setMaterializedPages({{"root"}});
  ::testing::internal::CaptureStderr();
  controller.signalWorkingSet();
  EXPECT_THAT(controller.materializedIdentifiers(), IsEmpty());
  std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("No file provider manager for the domain; working set not signalled"));
  EXPECT_THAT(log, HasSubstr("No file provider manager; treating nothing as materialized"));
  EXPECT_EQ(files.workingSetSignals(), 0);

  files.setHasDomainManager(true);
  files.fail(Op::signalWorkingSet);
  ::testing::internal::CaptureStderr();
  controller.signalWorkingSet();
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              HasSubstr("Could not signal the working set: The file provider is not available."));
}

}  // namespace
}  // namespace halvark
