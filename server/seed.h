#pragma once
// The sample brain of `--seed demo`: a few folders, text files and one binary
// file, granted to every member.

namespace devserver {

class SharedState;

// Creates the brain with the slug "demo" unless one exists already (a restart
// with the same state file keeps the first one and its history).
void seedDemo(SharedState& state);

}  // namespace devserver
