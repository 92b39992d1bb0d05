// Sequences: recording frames at full rate to a file or to memory, reading them back by
// frame number or timestamp, and playing them back.
#pragma once

#include <cstdint>
#include <memory>

#include "KError.h"
#include "KImage.h"
#include "KTypes.h"

class KSequencer;
namespace kestor {
struct SequenceSettings;
}

// The application's callbacks. Every call hands back the id and context given at
// registration. Playback callbacks run on the sequence's playback thread.
class KESTOR_API KSequencerCallbacks {
public:
    virtual ~KSequencerCallbacks();
    // A frame was written (on the writing thread, after the sequence's lock is released).
    virtual void OnImageWrite(unsigned int id, void* context);
    // Playback delivers a frame; the image is valid only during the call.
    virtual void OnImageRead(KImage* image, unsigned int id, void* context);
    // Playback reached the last frame of the sequence: leave `stop` false to loop to the
    // start of the range, set it true to stop.
    virtual void OnEndOfSequence(bool& stop, unsigned int id, void* context);
    // Playback reached the end of the playback range (same rule as above).
    virtual void OnEndOfPlaybackRange(bool& stop, unsigned int id, void* context);
    // Playback ended (by Stop or by a callback's `stop`).
    virtual void OnPlaybackStopped(unsigned int id, void* context);
};

// A sequence of frames in a file or in memory. Copies of a handle share one sequence.
// Frame numbers are 1-based. Operations return false on failure; GetLastError() tells why.
class KESTOR_API KSequence : public KHandleBase {
public:
    KSequence();
    ~KSequence() override;
    KSequence(const KSequence& other) = default;
    KSequence& operator=(const KSequence& other) = default;

    // --- creation and opening --------------------------------------------------------------
    // A null file name creates a memory (RAM) sequence. `value` and `count` are passed to the
    // compressed variants. Compressions without a variant yet give 73 ("This feature is
    // unsupported"); a memory sequence with Wavelet compression gives 58.
    bool Create(const KChar* fileName, eKCompression compression = eKCompressionNone,
                uint32_t value = 0, int count = 0);
    bool Create(const char* utf8FileName, eKCompression compression = eKCompressionNone,
                uint32_t value = 0, int count = 0);
    bool Open(const KChar* fileName);
    bool Open(const KChar* fileName, bool& upgraded);
    bool Open(const char* utf8FileName);
    bool Open(const char* utf8FileName, bool& upgraded);
    // Opens for reading only (no writer lock is taken).
    bool OpenReadOnly(const char* utf8FileName);
    bool Close();
    bool IsSequenceOpen();
    bool IsRAMSequence();
    eKCompression GetSequenceCompression();
    bool SupportRewrite();
    // Rebuilds the frame count of a file whose recording was interrupted (a crash, a kill, a
    // power cut) from its length and slot size, keeping every completely written frame whose
    // timestamp is plausible. The sequence must not be open. `frames` receives the count.
    bool Recover(const char* utf8FileName, uint32_t& frames);

    // --- frames ------------------------------------------------------------------------------
    bool Write(KImage* image);
    bool Read(KImage* image, unsigned int frame);
    bool ReadTimestamp(unsigned int frame, int32_t& seconds, unsigned short& milliseconds,
                       unsigned short& microseconds);
    bool Truncate(unsigned int frameCount);
    bool PreAllocateImages(unsigned int imageSizeBytes, unsigned int count);
    unsigned int GetPreAllocatedImages();
    unsigned int GetAllocatedFrames();

    bool SetRecordingPosition(unsigned int frame);
    unsigned int GetRecordingPosition();
    bool SetPlaybackPosition(unsigned int frame);
    unsigned int GetPlaybackPosition();

    bool GetIndexAt(int32_t seconds, unsigned short milliseconds, unsigned short microseconds,
                    unsigned int& frame);
    bool GetIndexNear(int32_t seconds, unsigned short milliseconds, unsigned short microseconds,
                      unsigned int& frame);

    // --- header properties ---------------------------------------------------------------
    unsigned int GetImageWidth();
    unsigned int GetImageHeight();
    unsigned int GetImageBitDepth();
    unsigned int GetImageBitDepthReal();
    unsigned int GetImageSizeBytes();
    unsigned int GetTrueImageSize();
    eKImageFormat GetImageFormat();
    bool SetFrameRate(double rate);
    double GetFrameRate();
    // The 512-byte description field: as raw bytes (`length` bytes are copied, at most 512)
    // or as text.
    bool SetDescription(const unsigned char* bytes, unsigned int length = 512);
    bool GetDescription(unsigned char* bytes, unsigned int length = 512);
    bool SetDescriptionText(const KChar* text);
    bool GetDescriptionText(KChar* text, unsigned int capacity);
    bool SetDescriptionFormat(eKDescriptionFormat format);
    eKDescriptionFormat GetDescriptionFormat();
    bool SetUserData(uint32_t value);
    uint32_t GetUserData();
    bool SetFlags(uint32_t flags);
    uint32_t GetFlags();
    bool SetReferenceFrame(unsigned int frame);
    unsigned int GetReferenceFrame();
    bool SetReferenceTime(int32_t seconds, unsigned short milliseconds,
                          unsigned short microseconds);
    bool GetReferenceTime(int32_t& seconds, unsigned short& milliseconds,
                          unsigned short& microseconds);
    bool HasReferenceTime();
    bool ResetReferenceTime();
    bool SetTimeOffset(int32_t offset);
    int32_t GetTimeOffset();
    bool SetBayerPattern(eKBayerPatternOrigin origin);
    bool GetBayerPattern(eKBayerPatternOrigin& origin);
    bool IsBayer();
    bool HasMarkers();  // flag bit 1
    bool HasLTC();      // the frames carry LTC time codes (metadata type 34)
    // Sends the header's fields to the debug output channel, one line each.
    void DumpHeader();
    bool Sort();

    // --- compression settings (used by the compressed variants) ------------------------------
    // Names of the compressors and predictors that the compressed variants offer (none until
    // a compressed variant is built in); indexes are 0-based.
    static int GetAvailableCompressorsCount();
    static const KChar* GetAvailableCompressor(int index);  // null past the end
    static int GetAvailablePredictorsCount();
    static const KChar* GetAvailablePredictor(int index);
    // Settings kept by the handle and handed to a compressed variant when one is created.
    bool SetCompressor(int index);  // 147 when no such compressor
    int GetCompressor();
    bool SetThreadCount(int threads);  // 0 chooses automatically; negative values give 147
    int GetThreadCount();
    void EnableCompressSizeLog(bool enable);
    // Smallest and largest stored frame of a compressed sequence; 73 for other sequences.
    bool GetMinCompressSize(uint32_t& bytes);
    bool GetMaxCompressSize(uint32_t& bytes);
    void SetH264SequenceParameter(int first, int second);  // defaults 500000 and 30
    // Index of a compressed sequence: in a stream of the file (true) or a side file (false).
    void SetCompressSeqIndexType(bool stream);
    bool GetCompressSeqIndexType();
    void SetAutoRecoveryIndexStream(bool enable);
    bool GetAutoRecoveryIndexStream();
    // Rebuilds the index of a compressed sequence file; 73 for uncompressed files, which have
    // no index (see Recover for interrupted uncompressed recordings).
    virtual bool RecoverIndexStream(const KChar* fileName);

    // --- playback ----------------------------------------------------------------------------
    bool SetCallbacks(KSequencerCallbacks* callbacks, unsigned int id, void* context);
    bool Play();           // at the intervals of the recorded timestamps
    bool PlayFixedRate();  // at the header's frame rate
    bool Stop();
    bool IsPlaying();
    bool IsPlayFixedRate();
    bool SetPlaybackRange(unsigned int first, unsigned int last);
    bool GetPlaybackRange(unsigned int& first, unsigned int& last);
    bool SetPlaybackSpeed(double speed);
    double GetPlaybackSpeed();
    bool SetPlaybackFrameSkip(uint32_t skip);
    uint32_t GetPlaybackFrameSkip();
    bool SetMaxPlaybackInterval(int milliseconds);
    int GetMaxPlaybackInterval();
    bool GetNextPlaybackFrameTime(int32_t& seconds, unsigned short& milliseconds,
                                  unsigned short& microseconds);
    bool ResynchronizePlayback(uint32_t frame);
    bool ResynchronizePlayback(int32_t seconds, unsigned short milliseconds);

private:
    KSequencer* PlaybackTarget();

    std::shared_ptr<kestor::SequenceSettings> settings_;  // shared by copies, like the sequence
};
