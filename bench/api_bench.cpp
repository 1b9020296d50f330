// Decoding cost of one change-feed page, against parsing the same text
// without building wire types.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>

#include "synckit/api/sync_json.h"

namespace {

using namespace synckit;

constexpr int entriesPerPage = 10000;

// A page shaped like a busy brain's feed: mostly edits, then creates,
// moves, deletes and folders, each entry with one op.
std::string makePage() {
  std::string page = R"({"reset":false,"cursor":"cur-)" + std::to_string(entriesPerPage) + R"(","entries":[)";
  for (int i = 0; i < entriesPerPage; ++i) {
    std::string path = "projects/area-" + std::to_string(i % 37) + "/note-" + std::to_string(i) + ".md";
    std::optional<Op> op;
    switch (i % 20) {
      case 0: case 1: case 2: case 3: case 4: case 5: case 6: case 7: case 8: case 9:
        op = Op::Update{path, std::nullopt, std::nullopt, true, NodeKind::text};
        break;
      case 10: case 11:
        op = Op::Update{path, "Note " + std::to_string(i), std::vector<std::string>{"draft", "team"}, false,
                        std::nullopt};
        break;
      case 12: case 13: case 14:
        op = Op::Create{path, "Note " + std::to_string(i), {"inbox"}, false, NodeKind::text};
        break;
      case 15:
        op = Op::Create{"assets/image-" + std::to_string(i) + ".png", "image", {}, false, NodeKind::blob};
        break;
      case 16: case 17:
        op = Op::Move{path, "archive/note-" + std::to_string(i) + ".md"};
        break;
      case 18:
        op = Op::Delete{path};
        break;
      default:
        op = Op::Mkdir{"projects/area-" + std::to_string(i), "area " + std::to_string(i)};
        break;
    }
    FeedEntry entry{"cur-" + std::to_string(i), Timestamp::fromMilliseconds(1740821412345 + i * 1000LL),
                    Author{i % 7 == 0 ? AuthorKind::agent : AuthorKind::member, "member-" + std::to_string(i % 5),
                           i % 7 == 0 ? std::optional<std::string>("assistant") : std::nullopt},
                    {*op}};
    if (i > 0) page.push_back(',');
    page += SyncJSON::encode(entry);
  }
  page += "]}";
  return page;
}

const std::string& page() {
  static const std::string text = makePage();
  return text;
}

void BM_DecodeChangesPage(benchmark::State& state) {
  const std::string& text = page();
  for (auto _ : state) {
    auto response = SyncJSON::decode<ChangesResponse>(std::string_view(text));
    benchmark::DoNotOptimize(response);
  }
  state.SetItemsProcessed(state.iterations() * entriesPerPage);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_DecodeChangesPage)->Unit(benchmark::kMillisecond);

// Baseline: the JSON parse alone, which every decode has to pay.
void BM_ParseChangesPageJSONOnly(benchmark::State& state) {
  const std::string& text = page();
  for (auto _ : state) {
    auto document = nlohmann::json::parse(text);
    benchmark::DoNotOptimize(document);
  }
  state.SetItemsProcessed(state.iterations() * entriesPerPage);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ParseChangesPageJSONOnly)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
