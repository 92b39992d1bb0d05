// Settings a sequence handle keeps before (and across) the sequencer variants it creates; the
// compressed variants take them at creation.
#pragma once

namespace kestor {

struct SequenceSettings {
    int compressor = 0;
    int threadCount = 0;  // 0: as many as the machine has
    bool compressSizeLog = false;
    int h264First = 500000;
    int h264Second = 30;
    bool indexInStream = false;  // index in a side file
    bool autoRecoverIndex = false;
};

}  // namespace kestor
