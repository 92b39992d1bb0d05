// The sub-commands of the `kestor` tool.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestor::tool {

struct RecordOptions {
    std::string file;  // empty: record into memory
    uint64_t frames = 0;
    double seconds = 0;
    double rate = 0;  // frames per second; 0 records as fast as possible
    uint32_t width = 640, height = 480, bitDepth = 8;
    bool progress = true;
};

int RunDemo();
int RunErrors(const std::vector<long>& codes);
int RunRecord(const RecordOptions& options);
int RunInfo(const std::string& file);
int RunRecover(const std::string& file);

}  // namespace kestor::tool
