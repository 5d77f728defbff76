// The download pipeline with fake transfers: what is fetched ahead, when it
// is taken, dropped or not started, and how a transfer's end becomes a code.
#include <gtest/gtest.h>

#include <set>

#include "support/fake_env.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FetchPlanner;
using quillstone::dropbox::FileMetadata;
using quillstone::utilities::Downloader;

namespace {

// Plans every file of the page at "/" + its name, unless told otherwise.
struct Planner : FetchPlanner {
  bool PlanFetch(const FileMetadata& entry, std::string* folder, std::string* path) override {
    if (refused.count(entry.name) != 0) return false;
    *folder = "";
    *path = "/" + entry.name;
    return true;
  }
  std::set<std::string> refused;
};

FileMetadata Entry(const std::string& name, bool folder = false) {
  FileMetadata entry;
  entry.name = name;
  entry.path_lower = "/" + name;
  entry.is_folder = folder;
  entry.size = 10;
  return entry;
}

// A page walked as the server pass walks it; each entry with the local path
// the pass fetches it at ("" for none), up to a stop before the last.
TEST(DownloadPipelineTest, FetchesTheNextCertainFileAheadAndShowsItOnlyAtItsEntry) {
  qs_test::FakePipeline fake;
  Planner planner;
  planner.refused = {"e.pdf"};  // already current: not certain to be fetched
  struct Step {
    FileMetadata entry;
    const char* fetch_at;
  };
  std::vector<Step> steps = {
      {Entry("a.pdf"), "/a.pdf"},  {Entry("b.pdf"), "/b.pdf"},
      {Entry("B.PDF"), "/B.PDF"},  // one row without case: not while b.pdf is in flight
      {Entry("c", true), ""},      {Entry("d.pdf"), "/d.pdf"},
      {Entry("e.pdf"), ""},        {Entry("f.pdf"), "/f.pdf"},
      {Entry("g.pdf"), "/g2.pdf"},  // its plan changed since it was started ahead
      {Entry("h.pdf"), "/h.pdf"},  {Entry("i.pdf"), ""},
  };
  std::vector<FileMetadata*> page;
  for (Step& step : steps) page.push_back(&step.entry);
  fake.pipeline->BeginPage(&page, &planner);
  for (size_t k = 0; k + 1 < steps.size(); ++k) {
    fake.pipeline->BeginEntry(k);
    if (*steps[k].fetch_at != '\0') {
      auto result = fake.pipeline->Fetch(steps[k].entry.path_lower, steps[k].fetch_at, 10,
                                         [](const Downloader::StatusInfo&) {});
      EXPECT_EQ(DropboxProtocol::kSuccess, std::get<0>(result));
      EXPECT_EQ(steps[k].fetch_at, std::get<1>(result));
    }
    fake.pipeline->EndEntry();
  }
  fake.pipeline->EndPage();
  const std::vector<std::string> expected = {
      "start /a.pdf",  "start /b.pdf", "put /a.pdf",   // b goes while a is waited for
      "put /b.pdf",                                    // and is only put at its entry
      "start /B.PDF",  "put /B.PDF",                   // c is a folder, nothing ahead
      "start /d.pdf",  "put /d.pdf",                   // e is not certain
      "start /f.pdf",  "start /g.pdf", "put /f.pdf",   //
      "start /g2.pdf", "put /g2.pdf",  "drop /g.pdf",  // g's transfer is not g2's
      "start /h.pdf",  "start /i.pdf", "put /h.pdf",   //
      "drop /i.pdf",                                   // the page ends before i
  };
  EXPECT_EQ(expected, fake.log);
}

// Each end of a transfer in hand, and what becomes of its data and of the
// file fetched ahead meanwhile.
TEST(DownloadPipelineTest, EachEndOfATransferGivesItsCodeAndLeavesItsData) {
  using D = Downloader;
  using P = DropboxProtocol;
  const std::vector<std::string> kPut = {"start /a", "start /b", "put /a", "drop /b"};
  const std::vector<std::string> kKept = {"start /a", "start /b", "drop /b"};
  const std::vector<std::string> kDropped = {"start /a", "start /b", "drop /a", "drop /b"};
  struct Case {
    const char* name;
    int state, error, http;
    bool stop;
    int code;
    std::vector<std::string> log;
  };
  const Case cases[] = {
      {"done", D::kStateDone, D::kErrorNone, 200, false, P::kSuccess, kPut},
      {"network: data kept for the retry", D::kStateFailed, D::kErrorNetwork, 0, false,
       P::kErrNoNetwork, kKept},
      {"storage", D::kStateFailed, D::kErrorStorage, 0, false, P::kErrStorage, kDropped},
      {"http 409 through the service", D::kStateFailed, D::kErrorHttp, 409, false, P::kNotFound,
       kDropped},
      {"other", D::kStateFailed, D::kErrorOther, 0, false, P::kErrServer, kDropped},
      {"stop: both aborted", D::kStateInProgress, 0, 0, true, P::kStopped, kDropped},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    qs_test::FakePipeline fake;
    Planner planner;
    FileMetadata a = Entry("a"), b = Entry("b");
    std::vector<FileMetadata*> page = {&a, &b};
    fake.fakes[0]->outcome = {c.state, c.error, 0, c.http, 0, "", "", ""};
    fake.fakes[0]->finish_at_start = !c.stop;
    fake.fakes[1]->finish_at_start = false;  // still in flight when the page ends
    fake.running = !c.stop;
    fake.pipeline->BeginPage(&page, &planner);
    fake.pipeline->BeginEntry(0);
    auto result = fake.pipeline->Fetch("/a", "/a", 10, [](const Downloader::StatusInfo&) {});
    fake.pipeline->EndEntry();
    fake.pipeline->EndPage();
    EXPECT_EQ(c.code, std::get<0>(result));
    EXPECT_EQ(c.log, fake.log);
  }
}

// Over windows of 1 to 8 slots: the first file finishes after those started
// behind it, yet files are put in listing order; a failure in the middle and
// a stop leave nothing in flight and drop the data of every transfer started.
TEST(DownloadPipelineTest, AWindowOfAnySizeKeepsListingOrderAndDropsAllOnFailureOrStop) {
  enum Ending { kAll, kFailAtC, kStop };
  for (size_t slots : {1, 2, 4, 8}) {
    for (Ending ending : {kAll, kFailAtC, kStop}) {
      SCOPED_TRACE(std::to_string(slots) + " slots, ending " + std::to_string(ending));
      qs_test::FakePipeline fake(slots);
      Planner planner;
      std::vector<FileMetadata> entries;
      for (const char* name : {"a", "b", "c", "d", "e", "f"}) entries.push_back(Entry(name));
      std::vector<FileMetadata*> page;
      for (FileMetadata& entry : entries) page.push_back(&entry);
      fake.fakes[0]->finish_after_ms = ending == kStop ? 0 : 50;
      fake.fakes[0]->finish_at_start = ending != kStop;
      fake.running = ending != kStop;
      for (auto& transfer : fake.fakes) transfer->fails = ending == kFailAtC ? "/c" : "";
      fake.pipeline->BeginPage(&page, &planner);
      for (size_t k = 0; k < page.size(); ++k) {
        fake.pipeline->BeginEntry(k);
        const auto result = fake.pipeline->Fetch(page[k]->path_lower, page[k]->path_lower, 10,
                                                 [](const Downloader::StatusInfo&) {});
        if (k == 0) {
          EXPECT_EQ(std::min<size_t>(slots, 6) - 1, fake.pipeline->InFlightCount());
        }
        fake.pipeline->EndEntry();
        if (std::get<0>(result) != DropboxProtocol::kSuccess) break;
      }
      fake.pipeline->EndPage();
      EXPECT_EQ(0u, fake.pipeline->InFlightCount());
      std::vector<std::string> put, started;
      size_t dropped = 0;
      for (const std::string& line : fake.log) {
        if (line.compare(0, 4, "put ") == 0) put.push_back(line.substr(4));
        if (line.compare(0, 6, "start ") == 0) started.push_back(line.substr(6));
        if (line.compare(0, 5, "drop ") == 0) ++dropped;
      }
      const std::vector<std::string> all = {"/a", "/b", "/c", "/d", "/e", "/f"};
      // Started once each, in listing order, and never more than the window.
      EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + started.size()), started);
      if (ending == kAll) {
        EXPECT_EQ("put /a", fake.log.at(std::min<size_t>(slots, 6)));
      }
      const size_t puts = ending == kAll ? 6 : ending == kFailAtC ? 2 : 0;
      EXPECT_EQ(std::vector<std::string>(all.begin(), all.begin() + puts), put);
      EXPECT_EQ(started.size(), put.size() + dropped);
    }
  }
}

}  // namespace
