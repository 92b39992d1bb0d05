// The serial line of the simulated camera: text commands ended by '\r', answered at once.
//   GET <name>          -> "<NAME>=<value>\r"
//   SET <name> <value>  -> "OK\r", or "ERROR\r" for a bad name or value
// Names: EXPOSURE (us), GAIN (dB), BLACKLEVEL, FRAMERATE, WIDTH, HEIGHT (read only), MODEL
// (read only). Anything else answers "ERROR\r".
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <sstream>

#include "simulated/SimulatedCamera.h"

namespace kestor::simulated {
namespace {

constexpr char kEndChar = '\r';
constexpr size_t kMaxPending = 64 * 1024;  // a peer that never ends a line cannot grow us

std::string Upper(std::string text) {
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

bool ParseNumber(const std::string& text, double& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

std::string Number(double value) {
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

}  // namespace

std::string SimulatedCamera::AnswerSerialCommand(const std::string& command) {
    std::istringstream words(command);
    std::string verb, name, value, extra;
    words >> verb >> name >> value >> extra;
    verb = Upper(verb);
    name = Upper(name);
    const SimulatedConfig config = Config();

    if (verb == "GET" && value.empty()) {
        std::string answer;
        if (name == "EXPOSURE")
            answer = std::to_string(config.exposureUs);
        else if (name == "GAIN")
            answer = Number(config.gainDb);
        else if (name == "BLACKLEVEL")
            answer = std::to_string(config.blackLevel);
        else if (name == "FRAMERATE")
            answer = Number(config.frameRate);
        else if (name == "WIDTH")
            answer = std::to_string(config.width);
        else if (name == "HEIGHT")
            answer = std::to_string(config.height);
        else if (name == "MODEL")
            answer = "Simulated Camera";
        else
            return "ERROR\r";
        return name + "=" + answer + "\r";
    }
    double number = 0;
    if (verb == "SET" && extra.empty() && ParseNumber(value, number)) {
        int32_t adjustment = -1;
        if (name == "EXPOSURE")
            adjustment = 0;
        else if (name == "GAIN")
            adjustment = 1;
        else if (name == "BLACKLEVEL")
            adjustment = 2;
        else if (name == "FRAMERATE")
            adjustment = 3;
        if (adjustment >= 0 && KSucceeded(SetDoubleValue(adjustment, number))) return "OK\r";
    }
    return "ERROR\r";
}

KStatus SimulatedCamera::Transmit(const void* data, uint32_t* count, uint32_t /*timeoutMs*/) {
    if (count == nullptr || (data == nullptr && *count != 0)) return kKPointer;
    std::lock_guard lock(serialMutex_);
    serialInput_.append(static_cast<const char*>(data), *count);
    size_t end;
    while ((end = serialInput_.find(kEndChar)) != std::string::npos) {
        const std::string line = serialInput_.substr(0, end);
        serialInput_.erase(0, end + 1);
        serialOutput_ += AnswerSerialCommand(line);
    }
    if (serialInput_.size() > kMaxPending) serialInput_.clear();
    if (serialOutput_.size() > kMaxPending)
        serialOutput_.erase(0, serialOutput_.size() - kMaxPending);
    return kKOk;  // every byte offered was taken
}

KStatus SimulatedCamera::Receive(void* data, uint32_t* count, uint32_t /*timeoutMs*/) {
    if (count == nullptr || (data == nullptr && *count != 0)) return kKPointer;
    std::lock_guard lock(serialMutex_);
    // Answers are ready as soon as a command is sent: nothing to wait for.
    const size_t moved = std::min<size_t>(*count, serialOutput_.size());
    if (moved > 0) std::memcpy(data, serialOutput_.data(), moved);
    serialOutput_.erase(0, moved);
    *count = static_cast<uint32_t>(moved);
    return moved > 0 ? kKOk : kKTimeout;
}

KStatus SimulatedCamera::GetEndChar(int32_t* endChar) {
    if (endChar == nullptr) return kKPointer;
    *endChar = kEndChar;
    return kKOk;
}

KStatus SimulatedCamera::GetTextMode(int32_t* textMode) {
    if (textMode == nullptr) return kKPointer;
    *textMode = 1;
    return kKOk;
}

KStatus SimulatedCamera::GetProgFolder(KAbiChar* folder, uint32_t capacity) {
    if (folder == nullptr) return kKPointer;
    KCopyName(folder, capacity, u"Simulated Camera\\Programs");
    return kKOk;
}

KStatus SimulatedCamera::GetSavedProgFolder(KAbiChar* folder, uint32_t capacity) {
    if (folder == nullptr) return kKPointer;
    KCopyName(folder, capacity, u"Simulated Camera\\Programs\\Saved");
    return kKOk;
}

KStatus SimulatedCamera::GetCommunicationType(int32_t* type) {
    if (type == nullptr) return kKPointer;
    *type = 0;  // a plain serial line
    return kKOk;
}

}  // namespace kestor::simulated
