// The public sequence handle: chooses the sequencer variant and forwards every call to it
// under the handle's lock.
#include "KSequence.h"

#include <cstring>

#include "core/HandleCore.h"
#include "platform/FileSystem.h"
#include "platform/WideString.h"
#include "sequence/CKestorSequencerDisk.h"
#include "sequence/CKestorSequencerRAM.h"
#include "sequence/KSequencer.h"
#include "sequence/PlaybackEngine.h"
#include "sequence/SequenceHeader.h"
#include "sequence/SequenceSettings.h"

using kestor::HandleCore;

namespace {

// Runs `op` on the sequencer under the handle's lock; `fallback` when none is open.
template <class Op, class R>
R Forward(HandleCore& core, R fallback, Op op) {
    auto lock = core.Lock();
    KSequencer* sequencer = core.As<KSequencer>();
    if (sequencer == nullptr) return fallback;
    return op(*sequencer);
}

// Same for operations that need an open sequence: without one they fail with 47.
template <class Op>
bool ForwardOrFail(HandleCore& core, Op op) {
    auto lock = core.Lock();
    KSequencer* sequencer = core.As<KSequencer>();
    if (sequencer == nullptr) return core.Fail(eKErrNoSequenceOrInvalidImage);
    return op(*sequencer);
}

// Header setters: change the field under the sequencer's lock and have it written back.
template <class Op>
bool SetHeader(HandleCore& core, Op op) {
    return ForwardOrFail(core, [&](KSequencer& s) {
        std::lock_guard lock(s.Mutex());
        op(s.Header());
        s.HeaderChanged();
        return true;
    });
}

template <class Op, class R>
R GetHeader(HandleCore& core, R fallback, Op op) {
    return Forward(core, fallback, [&](KSequencer& s) {
        std::lock_guard lock(s.Mutex());
        return op(s.Header());
    });
}

// The compression stored in a file's header, or none when the header cannot be read (the
// disk sequencer's own open then reports why).
bool PeekCompression(const std::string& path, uint32_t& compression) {
    kestor::SequenceHeader header;
    if (kestor::ReadFileBytes(path, 0, &header.data, sizeof header.data) !=
        static_cast<long>(sizeof header.data))
        return false;
    if (header.data.magic != kestor::kSequenceMagic) return false;
    compression = header.data.version >= kestor::kSequenceVersion ? header.data.compression : 0;
    return true;
}

}  // namespace

KSequence::KSequence() : settings_(std::make_shared<kestor::SequenceSettings>()) {}

// The sequencer stops its playback when the last handle releases it.
KSequence::~KSequence() = default;

// --- creation and opening --------------------------------------------------------------------

bool KSequence::Create(const KChar* fileName, eKCompression compression, uint32_t value,
                       int count) {
    if (fileName == nullptr)
        return Create(static_cast<const char*>(nullptr), compression, value, count);
    return Create(kestor::WideToUtf8(fileName).c_str(), compression, value, count);
}

bool KSequence::Create(const char* utf8FileName, eKCompression compression, uint32_t, int) {
    Close();
    auto lock = Core().Lock();
    if (compression == eKCompressionWavelet && utf8FileName == nullptr)
        return Core().Fail(eKErrFormatNotSupportedBySequence);
    if (compression != eKCompressionNone) return Core().Fail(eKErrUnsupportedFeature);

    if (utf8FileName == nullptr) {
        auto ram = std::make_unique<CKestorSequencerRAM>();
        CKestorSequencerRAM* sequencer = ram.get();
        Core().SetImplementation(std::move(ram));
        return sequencer->Open();
    }
    auto disk = std::make_unique<CKestorSequencerDisk>();
    CKestorSequencerDisk* sequencer = disk.get();
    Core().SetImplementation(std::move(disk));
    return sequencer->Create(utf8FileName);
}

bool KSequence::Open(const KChar* fileName) {
    bool upgraded;
    return Open(fileName, upgraded);
}

bool KSequence::Open(const KChar* fileName, bool& upgraded) {
    const std::string path = fileName != nullptr ? kestor::WideToUtf8(fileName) : std::string();
    return Open(path.c_str(), upgraded);
}

bool KSequence::Open(const char* utf8FileName) {
    bool upgraded;
    return Open(utf8FileName, upgraded);
}

bool KSequence::Open(const char* utf8FileName, bool& upgraded) {
    upgraded = false;
    Close();
    auto lock = Core().Lock();
    const std::string path = utf8FileName != nullptr ? utf8FileName : "";
    uint32_t compression = 0;
    if (!path.empty() && PeekCompression(path, compression) && compression != eKCompressionNone)
        return Core().Fail(eKErrUnsupportedFeature);
    auto disk = std::make_unique<CKestorSequencerDisk>();
    CKestorSequencerDisk* sequencer = disk.get();
    Core().SetImplementation(std::move(disk));
    bool readOnly = false;
    return sequencer->Open(path, readOnly, upgraded);
}

bool KSequence::OpenReadOnly(const char* utf8FileName) {
    Close();
    auto lock = Core().Lock();
    auto disk = std::make_unique<CKestorSequencerDisk>();
    CKestorSequencerDisk* sequencer = disk.get();
    Core().SetImplementation(std::move(disk));
    bool readOnly = true;
    bool upgraded = false;
    return sequencer->Open(utf8FileName != nullptr ? utf8FileName : "", readOnly, upgraded);
}

bool KSequence::Close() {
    // Playback calls back into the application: end it before taking the handle's lock.
    Stop();
    return Forward(Core(), true, [](KSequencer& s) { return s.Close(); });
}

bool KSequence::IsSequenceOpen() {
    return Forward(Core(), false, [](KSequencer& s) { return s.IsOpen(); });
}

bool KSequence::IsRAMSequence() {
    return Forward(Core(), false, [](KSequencer& s) { return s.IsOpen() && s.IsRAM(); });
}

eKCompression KSequence::GetSequenceCompression() {
    return Forward(Core(), eKCompressionNone, [](KSequencer& s) { return s.Compression(); });
}

bool KSequence::SupportRewrite() {
    return Forward(Core(), false, [](KSequencer& s) { return s.SupportRewrite(); });
}

bool KSequence::Recover(const char* utf8FileName, uint32_t& frames) {
    frames = 0;
    auto lock = Core().Lock();
    if (Core().Implementation() != nullptr && Core().As<KSequencer>()->IsOpen())
        return Core().Fail(eKErrWrongMode);
    eKErrorCode error = eKErrSuccess;
    if (!CKestorSequencerDisk::Recover(utf8FileName != nullptr ? utf8FileName : "", frames, error))
        return Core().Fail(error != eKErrSuccess ? error : eKErrNoSequenceOrInvalidImage);
    return true;
}

// --- frames ----------------------------------------------------------------------------------

bool KSequence::Write(KImage* image) {
    return ForwardOrFail(Core(), [&](KSequencer& s) { return s.Write(image); });
}

bool KSequence::Read(KImage* image, unsigned int frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) { return s.Read(image, frame); });
}

bool KSequence::ReadTimestamp(unsigned int frame, int32_t& seconds, unsigned short& milliseconds,
                              unsigned short& microseconds) {
    seconds = 0, milliseconds = 0, microseconds = 0;
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        uint32_t unsignedSeconds = 0;
        const bool ok = s.ReadTimestamp(frame, unsignedSeconds, milliseconds, microseconds);
        seconds = static_cast<int32_t>(unsignedSeconds);
        return ok;
    });
}

bool KSequence::Truncate(unsigned int frameCount) {
    return ForwardOrFail(Core(), [&](KSequencer& s) { return s.Truncate(frameCount); });
}

bool KSequence::PreAllocateImages(unsigned int imageSizeBytes, unsigned int count) {
    return ForwardOrFail(Core(),
                         [&](KSequencer& s) { return s.PreAllocateImages(imageSizeBytes, count); });
}

unsigned int KSequence::GetPreAllocatedImages() {
    return Forward(Core(), 0u, [](KSequencer& s) { return s.GetPreAllocatedImages(); });
}

unsigned int KSequence::GetAllocatedFrames() {
    return Forward(Core(), 0u, [](KSequencer& s) { return s.GetFrameCount(); });
}

bool KSequence::SetRecordingPosition(unsigned int frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.SetWriteFrame(frame);
        return true;
    });
}

unsigned int KSequence::GetRecordingPosition() {
    return Forward(Core(), 0u, [](KSequencer& s) { return s.GetWriteFrame(); });
}

bool KSequence::SetPlaybackPosition(unsigned int frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.SetReadFrame(frame);
        return true;
    });
}

unsigned int KSequence::GetPlaybackPosition() {
    return Forward(Core(), 0u, [](KSequencer& s) { return s.GetReadFrame(); });
}

bool KSequence::GetIndexAt(int32_t seconds, unsigned short milliseconds,
                           unsigned short microseconds, unsigned int& frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        return s.GetIndexAt(seconds, milliseconds, microseconds, frame);
    });
}

bool KSequence::GetIndexNear(int32_t seconds, unsigned short milliseconds,
                             unsigned short microseconds, unsigned int& frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        return s.GetIndexNear(seconds, milliseconds, microseconds, frame);
    });
}

// --- header properties ---------------------------------------------------------------------

using kestor::SequenceHeader;

unsigned int KSequence::GetImageWidth() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.width; });
}
unsigned int KSequence::GetImageHeight() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.height; });
}
unsigned int KSequence::GetImageBitDepth() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.bitDepth; });
}
unsigned int KSequence::GetImageBitDepthReal() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.bitDepthReal; });
}
unsigned int KSequence::GetImageSizeBytes() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.imageSizeBytes; });
}
unsigned int KSequence::GetTrueImageSize() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.trueImageSize; });
}
eKImageFormat KSequence::GetImageFormat() {
    return GetHeader(Core(), eKFormatUnknown, [](const SequenceHeader& h) {
        return static_cast<eKImageFormat>(h.data.imageFormat);
    });
}

bool KSequence::SetFrameRate(double rate) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.SetFrameRate(rate);
        return true;
    });
}

double KSequence::GetFrameRate() {
    return Forward(Core(), 0.0, [](KSequencer& s) { return s.GetFrameRate(); });
}

bool KSequence::SetDescription(const unsigned char* bytes, unsigned int length) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.SetDescriptionBytes(bytes, length); });
}

bool KSequence::GetDescription(unsigned char* bytes, unsigned int length) {
    if (bytes == nullptr) return false;
    return Forward(Core(), false, [&](KSequencer& s) {
        std::lock_guard lock(s.Mutex());
        const size_t n = length < sizeof s.Header().data.description
                             ? length
                             : sizeof s.Header().data.description;
        std::memcpy(bytes, s.Header().data.description, n);
        return true;
    });
}

bool KSequence::SetDescriptionText(const KChar* text) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.SetDescription(text); });
}

bool KSequence::GetDescriptionText(KChar* text, unsigned int capacity) {
    if (text == nullptr || capacity == 0) return false;
    return Forward(Core(), false, [&](KSequencer& s) {
        std::lock_guard lock(s.Mutex());
        unsigned int i = 0;
        for (; i + 1 < capacity && i < 256 && s.Header().data.description[i] != 0; ++i)
            text[i] = static_cast<KChar>(s.Header().data.description[i]);
        text[i] = 0;
        return true;
    });
}

bool KSequence::SetDescriptionFormat(eKDescriptionFormat format) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.data.descriptionFormat = format; });
}
eKDescriptionFormat KSequence::GetDescriptionFormat() {
    return GetHeader(Core(), eKDescriptionText, [](const SequenceHeader& h) {
        return static_cast<eKDescriptionFormat>(h.data.descriptionFormat);
    });
}
bool KSequence::SetUserData(uint32_t value) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.data.userData = value; });
}
uint32_t KSequence::GetUserData() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.userData; });
}
bool KSequence::SetFlags(uint32_t flags) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.data.flags = flags; });
}
uint32_t KSequence::GetFlags() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.flags; });
}
bool KSequence::SetReferenceFrame(unsigned int frame) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.data.referenceFrame = frame; });
}
unsigned int KSequence::GetReferenceFrame() {
    return GetHeader(Core(), 0u, [](const SequenceHeader& h) { return h.data.referenceFrame; });
}
bool KSequence::SetReferenceTime(int32_t seconds, unsigned short milliseconds,
                                 unsigned short microseconds) {
    return SetHeader(Core(), [&](SequenceHeader& h) {
        h.SetReferenceTime(static_cast<uint32_t>(seconds), milliseconds, microseconds);
    });
}
bool KSequence::GetReferenceTime(int32_t& seconds, unsigned short& milliseconds,
                                 unsigned short& microseconds) {
    return GetHeader(Core(), false, [&](const SequenceHeader& h) {
        uint32_t s;
        if (!h.GetReferenceTime(s, milliseconds, microseconds)) return false;
        seconds = static_cast<int32_t>(s);
        return true;
    });
}
bool KSequence::HasReferenceTime() {
    return GetHeader(Core(), false, [](const SequenceHeader& h) { return h.HasReferenceTime(); });
}
bool KSequence::ResetReferenceTime() {
    return SetHeader(Core(), [](SequenceHeader& h) { h.ResetReferenceTime(); });
}
bool KSequence::SetTimeOffset(int32_t offset) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.data.timeOffset = offset; });
}
int32_t KSequence::GetTimeOffset() {
    return GetHeader(Core(), 0, [](const SequenceHeader& h) { return h.data.timeOffset; });
}
bool KSequence::SetBayerPattern(eKBayerPatternOrigin origin) {
    return SetHeader(Core(), [&](SequenceHeader& h) { h.SetBayerPattern(origin); });
}
bool KSequence::GetBayerPattern(eKBayerPatternOrigin& origin) {
    return GetHeader(Core(), false,
                     [&](const SequenceHeader& h) { return h.GetBayerPattern(origin); });
}
bool KSequence::IsBayer() {
    return GetHeader(Core(), false, [](const SequenceHeader& h) { return h.IsBayer(); });
}
bool KSequence::HasMarkers() {
    return GetHeader(Core(), false, [](const SequenceHeader& h) {
        return (h.data.flags & kestor::kMarkersFlag) != 0;
    });
}

bool KSequence::HasLTC() {
    constexpr uint32_t kLtcType = 34;
    return Forward(Core(), false, [](KSequencer& s) {
        if (s.GetFrameCount() == 0) return false;
        KImage first;
        return s.Read(&first, 1) && first.GetSpecificMetadataCount(kLtcType) > 0;
    });
}

void KSequence::DumpHeader() {
    Forward(Core(), 0, [](KSequencer& s) {
        const std::string text = s.DumpHeader();
        size_t start = 0;
        while (start < text.size()) {
            const size_t end = text.find('\n', start);
            const std::string line = text.substr(start, end - start);
            s.Trace(kestor::Utf8ToWide(line).c_str());
            if (end == std::string::npos) break;
            start = end + 1;
        }
        return 0;
    });
}

bool KSequence::Sort() {
    return Forward(Core(), false, [](KSequencer& s) { return s.Sort(); });
}

// --- compression settings: kept for the compressed variants -------------------------------

int KSequence::GetAvailableCompressorsCount() {
    return 0;
}
const KChar* KSequence::GetAvailableCompressor(int) {
    return nullptr;
}
int KSequence::GetAvailablePredictorsCount() {
    return 0;
}
const KChar* KSequence::GetAvailablePredictor(int) {
    return nullptr;
}

bool KSequence::SetCompressor(int index) {
    auto lock = Core().Lock();
    if (index < 0 || index >= GetAvailableCompressorsCount()) return Core().Fail(eKErrOutOfRange);
    settings_->compressor = index;
    return true;
}

int KSequence::GetCompressor() {
    auto lock = Core().Lock();
    return settings_->compressor;
}

bool KSequence::SetThreadCount(int threads) {
    auto lock = Core().Lock();
    if (threads < 0) return Core().Fail(eKErrOutOfRange);
    settings_->threadCount = threads;
    return true;
}

int KSequence::GetThreadCount() {
    auto lock = Core().Lock();
    return settings_->threadCount;
}

void KSequence::EnableCompressSizeLog(bool enable) {
    auto lock = Core().Lock();
    settings_->compressSizeLog = enable;
}

bool KSequence::GetMinCompressSize(uint32_t& bytes) {
    bytes = 0;
    return ForwardOrFail(Core(), [](KSequencer& s) { return s.SetError(eKErrUnsupportedFeature); });
}

bool KSequence::GetMaxCompressSize(uint32_t& bytes) {
    bytes = 0;
    return ForwardOrFail(Core(), [](KSequencer& s) { return s.SetError(eKErrUnsupportedFeature); });
}

void KSequence::SetH264SequenceParameter(int first, int second) {
    auto lock = Core().Lock();
    settings_->h264First = first;
    settings_->h264Second = second;
}

void KSequence::SetCompressSeqIndexType(bool stream) {
    auto lock = Core().Lock();
    settings_->indexInStream = stream;
}

bool KSequence::GetCompressSeqIndexType() {
    auto lock = Core().Lock();
    return settings_->indexInStream;
}

void KSequence::SetAutoRecoveryIndexStream(bool enable) {
    auto lock = Core().Lock();
    settings_->autoRecoverIndex = enable;
}

bool KSequence::GetAutoRecoveryIndexStream() {
    auto lock = Core().Lock();
    return settings_->autoRecoverIndex;
}

bool KSequence::RecoverIndexStream(const KChar*) {
    auto lock = Core().Lock();
    return Core().Fail(eKErrUnsupportedFeature);
}

// --- playback ------------------------------------------------------------------------------

bool KSequence::SetCallbacks(KSequencerCallbacks* callbacks, unsigned int id, void* context) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.SetCallbacks(callbacks, id, context);
        return true;
    });
}

// Starting and stopping playback may wait for the playback thread, whose callback may be
// waiting for this handle's lock: these run without holding it. The sequencer stays alive
// because the handle's implementation is only replaced by Create/Open/Close on this thread.
KSequencer* KSequence::PlaybackTarget() {
    return Forward(Core(), static_cast<KSequencer*>(nullptr), [](KSequencer& s) { return &s; });
}

bool KSequence::Play() {
    KSequencer* sequencer = PlaybackTarget();
    if (sequencer == nullptr) return Core().Fail(eKErrNoSequenceOrInvalidImage);
    return sequencer->Playback().Play(false);
}

bool KSequence::PlayFixedRate() {
    KSequencer* sequencer = PlaybackTarget();
    if (sequencer == nullptr) return Core().Fail(eKErrNoSequenceOrInvalidImage);
    return sequencer->Playback().Play(true);
}

bool KSequence::Stop() {
    KSequencer* sequencer = PlaybackTarget();
    if (sequencer == nullptr) return false;
    sequencer->Playback().Stop();
    return true;
}

bool KSequence::IsPlaying() {
    return Forward(Core(), false, [](KSequencer& s) { return s.Playback().IsPlaying(); });
}
bool KSequence::IsPlayFixedRate() {
    return Forward(Core(), false, [](KSequencer& s) { return s.Playback().IsFixedRate(); });
}
bool KSequence::SetPlaybackRange(unsigned int first, unsigned int last) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.Playback().SetRange(first, last);
        return true;
    });
}
bool KSequence::GetPlaybackRange(unsigned int& first, unsigned int& last) {
    first = last = 0;
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.Playback().GetRange(first, last);
        return true;
    });
}
bool KSequence::SetPlaybackSpeed(double speed) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.Playback().SetSpeed(speed);
        return true;
    });
}
double KSequence::GetPlaybackSpeed() {
    return Forward(Core(), 0.0, [](KSequencer& s) { return s.Playback().GetSpeed(); });
}
bool KSequence::SetPlaybackFrameSkip(uint32_t skip) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.Playback().SetFrameSkip(skip);
        return true;
    });
}
uint32_t KSequence::GetPlaybackFrameSkip() {
    return Forward(Core(), 0u, [](KSequencer& s) { return s.Playback().GetFrameSkip(); });
}
bool KSequence::SetMaxPlaybackInterval(int milliseconds) {
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        s.Playback().SetMaxInterval(milliseconds);
        return true;
    });
}
int KSequence::GetMaxPlaybackInterval() {
    return Forward(Core(), 0, [](KSequencer& s) { return s.Playback().GetMaxInterval(); });
}
bool KSequence::GetNextPlaybackFrameTime(int32_t& seconds, unsigned short& milliseconds,
                                         unsigned short& microseconds) {
    seconds = 0, milliseconds = 0, microseconds = 0;
    return ForwardOrFail(Core(), [&](KSequencer& s) {
        return s.Playback().GetNextFrameTime(seconds, milliseconds, microseconds);
    });
}
bool KSequence::ResynchronizePlayback(uint32_t frame) {
    return ForwardOrFail(Core(), [&](KSequencer& s) { return s.Playback().Resynchronize(frame); });
}
bool KSequence::ResynchronizePlayback(int32_t seconds, unsigned short milliseconds) {
    return ForwardOrFail(
        Core(), [&](KSequencer& s) { return s.Playback().Resynchronize(seconds, milliseconds); });
}
