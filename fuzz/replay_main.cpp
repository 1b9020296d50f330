// The driver the fuzz targets are linked with in ordinary builds: it runs
// every file of a corpus through LLVMFuzzerTestOneInput, then a bounded run of
// cheap, deterministic mutations of those files. It finds regressions on
// known inputs without a libFuzzer toolchain; real exploration is the job of
// scripts/fuzz.
//
//   fuzz_TARGET CORPUS_DIR [--dict FILE] [--seconds S] [--runs N]
//
// A crash, a sanitizer report or an escaping exception writes the input to
// TARGET.crash in the working directory and ends the process unsuccessfully.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_check.h"

namespace {

using Input = std::vector<std::uint8_t>;

// What is being run, kept where a signal handler can reach it.
const Input* currentInput = nullptr;
char crashFile[4096] = "fuzz.crash";

void saveCurrentInput() {
  if (currentInput == nullptr) return;
  int fd = ::open(crashFile, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  std::size_t done = 0;
  while (done < currentInput->size()) {
    ssize_t n = ::write(fd, currentInput->data() + done, currentInput->size() - done);
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
  static const char note[] = "replay: the failing input is saved in ";
  [[maybe_unused]] auto ignored = ::write(STDERR_FILENO, note, sizeof note - 1);
  ignored = ::write(STDERR_FILENO, crashFile, std::strlen(crashFile));
  ignored = ::write(STDERR_FILENO, "\n", 1);
}

void onFatalSignal(int signal) {
  saveCurrentInput();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

// Present only when a sanitizer runtime is linked in; it calls back before
// ending the process on a report.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

// A libFuzzer dictionary: one "token" per line, optionally named
// (name="token"), with \\, \" and \xNN escapes.
std::vector<Input> readDictionary(const std::filesystem::path& file) {
  std::vector<Input> tokens;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    auto open = line.find('"');
    auto close = line.rfind('"');
    if (line.empty() || line[0] == '#' || open == std::string::npos || close <= open) continue;
    Input token;
    for (std::size_t i = open + 1; i < close; ++i) {
      if (line[i] != '\\' || i + 1 >= close) {
        token.push_back(static_cast<std::uint8_t>(line[i]));
      } else if (line[i + 1] == 'x' && i + 3 < close) {
        token.push_back(static_cast<std::uint8_t>(std::stoi(line.substr(i + 2, 2), nullptr, 16)));
        i += 3;
      } else {
        token.push_back(static_cast<std::uint8_t>(line[++i]));
      }
    }
    tokens.push_back(std::move(token));
  }
  return tokens;
}

std::vector<Input> readCorpus(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());  // the same order on every machine
  std::vector<Input> corpus;
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    corpus.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return corpus;
}

// xorshift64*: fixed seed, so a smoke failure reproduces on every run.
class Random {
 public:
  std::uint64_t next() {
    state_ ^= state_ >> 12;
    state_ ^= state_ << 25;
    state_ ^= state_ >> 27;
    return state_ * 0x2545F4914F6CDD1DULL;
  }
  std::size_t below(std::size_t n) { return n == 0 ? 0 : static_cast<std::size_t>(next() % n); }

 private:
  std::uint64_t state_ = 0x9E3779B97F4A7C15ULL;
};

constexpr std::size_t maxInputSize = 1 << 16;

void mutate(Input& input, const std::vector<Input>& corpus, const std::vector<Input>& dictionary,
            Random& random) {
  static const std::uint8_t interesting[] = {0x00, 0x01, 0x7F, 0x80, 0xFF, '"', '\\', '{',
                                             '}',  '[',  ']',  ':',  ',',  '-', '9',  '/'};
  switch (random.below(dictionary.empty() ? 6 : 8)) {
    case 0:  // flip one bit
      if (!input.empty()) input[random.below(input.size())] ^= std::uint8_t(1u << random.below(8));
      break;
    case 1:  // overwrite one byte with a value parsers care about
      if (!input.empty()) {
        input[random.below(input.size())] = interesting[random.below(sizeof interesting)];
      }
      break;
    case 2:  // truncate
      input.resize(random.below(input.size() + 1));
      break;
    case 3: {  // erase a range
      std::size_t at = random.below(input.size() + 1);
      std::size_t count = std::min(input.size() - at, 1 + random.below(8));
      input.erase(input.begin() + at, input.begin() + at + count);
      break;
    }
    case 4: {  // duplicate a range in place
      if (input.empty()) break;
      std::size_t at = random.below(input.size());
      std::size_t count = std::min(input.size() - at, 1 + random.below(16));
      Input copy(input.begin() + at, input.begin() + at + count);
      input.insert(input.begin() + at, copy.begin(), copy.end());
      break;
    }
    case 5: {  // splice: a prefix of this input, a suffix of another
      const Input& other = corpus[random.below(corpus.size())];
      std::size_t keep = random.below(input.size() + 1);
      std::size_t from = random.below(other.size() + 1);
      input.resize(keep);
      input.insert(input.end(), other.begin() + from, other.end());
      break;
    }
    case 6: {  // insert a dictionary token
      const Input& token = dictionary[random.below(dictionary.size())];
      input.insert(input.begin() + random.below(input.size() + 1), token.begin(), token.end());
      break;
    }
    default: {  // replace a range with a dictionary token
      const Input& token = dictionary[random.below(dictionary.size())];
      std::size_t at = random.below(input.size() + 1);
      std::size_t count = std::min(input.size() - at, random.below(token.size() + 4));
      input.erase(input.begin() + at, input.begin() + at + count);
      input.insert(input.begin() + at, token.begin(), token.end());
      break;
    }
  }
  if (input.size() > maxInputSize) input.resize(maxInputSize);
}

int run(const Input& input) {
  currentInput = &input;
  try {
    LLVMFuzzerTestOneInput(input.data(), input.size());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "replay: an exception escaped: %s\n", error.what());
    saveCurrentInput();
    return 1;
  } catch (...) {
    std::fprintf(stderr, "replay: an exception of unknown type escaped\n");
    saveCurrentInput();
    return 1;
  }
  currentInput = nullptr;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR [--dict FILE] [--seconds S] [--runs N]\n", argv[0]);
    return 2;
  }
  std::filesystem::path corpusDirectory = argv[1];
  std::filesystem::path dictionaryFile;
  double seconds = 2;
  long maxRuns = 50000;
  for (int i = 2; i + 1 < argc; i += 2) {
    std::string option = argv[i];
    if (option == "--dict") {
      dictionaryFile = argv[i + 1];
    } else if (option == "--seconds") {
      seconds = std::stod(argv[i + 1]);
    } else if (option == "--runs") {
      maxRuns = std::stol(argv[i + 1]);
    } else {
      std::fprintf(stderr, "unknown option %s\n", option.c_str());
      return 2;
    }
  }
  std::snprintf(crashFile, sizeof crashFile, "%s.crash",
                std::filesystem::path(argv[0]).filename().c_str());
  for (int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) std::signal(signal, onFatalSignal);
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(saveCurrentInput);

  std::vector<Input> corpus = readCorpus(corpusDirectory);
  std::vector<Input> dictionary;
  if (!dictionaryFile.empty()) dictionary = readDictionary(dictionaryFile);
  if (corpus.empty()) corpus.emplace_back();

  auto start = std::chrono::steady_clock::now();
  long runs = 0;
  for (const Input& input : corpus) {
    if (run(input) != 0) return 1;
    ++runs;
  }
  Random random;
  auto deadline = start + std::chrono::duration<double>(seconds);
  while (runs < maxRuns && (runs % 64 != 0 || std::chrono::steady_clock::now() < deadline)) {
    Input input = corpus[random.below(corpus.size())];
    for (std::size_t n = 1 + random.below(4); n > 0; --n) mutate(input, corpus, dictionary, random);
    if (run(input) != 0) return 1;
    ++runs;
  }
  double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("replay: %zu corpus inputs, %ld runs in %.1f s\n", corpus.size(), runs, elapsed);
  return 0;
}
