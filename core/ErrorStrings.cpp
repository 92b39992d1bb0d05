// The fixed English texts of the error codes. Their wording (typos included) is part of the
// public contract: applications compare these strings.
#include <cstdint>

#include "KError.h"
#include "platform/DebugOutput.h"
#include "platform/WideString.h"

namespace {

constexpr uint32_t kTextCount = 168;

struct ErrorTextTable {
    const KChar* texts[kTextCount] = {};
    constexpr ErrorTextTable() {
        texts[0] = u"Success";
        texts[1] = u"Could not find a valid authorization code for this module";
        texts[2] = u"Invalid Registration code";
        texts[3] = u"The export has already begun";
        texts[4] = u"Invalid JPEG compression method";
        texts[5] = u"You must call a BeginExport function first";
        texts[6] = u"No image data";
        texts[7] = u"Digit must be between 0 and 12";
        texts[8] = u"Could not find the grabber manager (Grabdesk.dll)";
        texts[9] = u"Grabber Initialization failed.";
        texts[10] = u"Could not create a buffer";
        texts[11] = u"CreateBuffer function failed";
        texts[12] = u"No grabber loaded";
        texts[13] = u"Conversion to BGR24 failed";
        texts[14] = u"Conversion to BGRx failed";
        texts[15] = u"Unsupported conversion";
        texts[16] = u"Error conversion Intel YUV422";
        texts[17] = u"Error conversion Intel UVY422";
        texts[18] = u"Error conversion Intel UVY411";
        texts[19] = u"Error conversion Intel UVY444";
        texts[20] = u"Failed to create system enumerator";
        texts[21] = u"Failed to create class enumerator";
        texts[22] = u"Enum moniker null";
        texts[23] = u"Failed to load the desired video codec";
        texts[24] = u"Failed to load the desired audio source";
        texts[25] = u"Failed to load the desired audio codec";
        texts[26] = u"No settings for this codec";
        texts[27] = u"Failed to create the graph builder";
        texts[28] = u"Failed to create the capture graph";
        texts[29] = u"Could not create the ImageFeeder Filter";
        texts[30] = u"Could not add the image feeder to the graph";
        texts[31] = u"Could not add the video codec to the graph";
        texts[32] = u"Could not add the audio codec to the graph";
        texts[33] = u"Could not add the audio source to the graph";
        texts[34] = u"Could not setup MUX and file writer";
        texts[35] = u"Failed to connect video source to video compressor";
        texts[36] = u"Failed to connect video compressor to mux";
        texts[37] = u"Failed to connect video source to mux";
        texts[38] = u"Failed to connect audio source to audio compressor";
        texts[39] = u"Failed to connect audio compressor to mux";
        texts[40] = u"Failed to connect audio source to mux";
        texts[41] = u"Failed to connect the file source to splitter";
        texts[42] = u"Failed to connect the splitter to the renderer";
        texts[43] = u"Failed to set the synch source";
        texts[44] = u"Failed to set the interleave mode";
        texts[45] = u"Failed to set the interleave time";
        texts[46] = u"Invalid file handle when trying to open for writing";
        texts[47] = u"No sequence to write to or invalid image";
        texts[48] = u"Could not write the image to the sequence.  (Disk full ?)";
        texts[49] = u"Invalid Magic Number";
        texts[50] = u"Invalid Sequence Header Size";
        texts[51] = u"Invalid Sequence Number of Frames Allocated";
        texts[52] = u"Invalid Sequence Frame Rate";
        texts[53] = u"Invalid Sequence Data length";
        texts[54] = u"Invalid Sequence Width";
        texts[55] = u"Invalid Sequence Height";
        texts[56] = u"Invalid Sequence Bit Depth";
        texts[57] = u"Invalid Sequence Image Size";
        texts[58] = u"This sequence does not support this image format";
        texts[59] = u"Bytes per sector is 0";
        texts[60] = u"File not found";
        texts[61] = u"Could not create/open desired file";
        texts[62] = u"Invalid index";
        texts[63] = u"Out of memory";
        texts[64] = u"The image format is incompatible with the current sequence";
        texts[65] = u"User data is too large to be written in the sequence";
        texts[66] = u"GDI draw failed";
        texts[67] = u"Stop the script before changing it.";
        texts[68] = u"Unsupported image format";
        texts[69] = u"The Scripter module is not running.";
        texts[70] = u"Must not be in playback mode";
        texts[71] = u"This action can't be done if grabber is streaming";
        texts[72] = u"This sequence format doesn't support rewrite";
        texts[73] = u"This feature is unsupported";
        texts[74] = u"Settings interface not found on driver";
        texts[75] = u"Adjustments interface not found on driver";
        texts[76] = u"No COM PORT found on this grabber.";
        texts[77] = u"Failed to export image";
        texts[78] = u"Could not load the input support device";
        texts[79] = u"Could not load the output support device";
        texts[80] = u"Could not load the video output support device";
        texts[83] = u"AdvanceSettings is unsupported";
        texts[84] = u"No bitmap file selected";
        texts[85] = u"Quicktime could not be initialized";
        texts[86] = u"This action can't be done while in the current mode";
        texts[87] = u"A Quicktime function returned an error";
        texts[89] = u"Image mirror Error";
        texts[92] = u"Image merge Error";
        texts[93] = u"This parameter is not supported";
        texts[94] = u"Input device initialization failed";
        texts[95] = u"Input device uninitialization failed";
        texts[96] = u"Failed to start/stop monitoring input line";
        texts[97] = u"Output device initialization failed";
        texts[98] = u"Output device uninitialization failed";
        texts[99] = u"Could not add the File Reader to the graph";
        texts[100] = u"Could not add the AVI Splitter to the graph";
        texts[101] = u"Could not create Image Renderer Filter";
        texts[107] = u"No processings were applied on the image";
        texts[108] = u"The image could not be color balanced";
        texts[109] = u"The image could not bayer converted";
        texts[113] = u"Could not read daq data";
        texts[115] = u"Invalid DAQ file handle when trying to open for writing";
        texts[116] = u"Invalid DAQ index";
        texts[117] = u"No DAQ data to write to or invalid DAQ data";
        texts[118] = u"Could not write the daq to the file (Disk full ?)";
        texts[119] = u"Daq format changed";
        texts[120] = u"Unsupported audio format";
        texts[121] = u"Failed to load audio drvier";
        texts[122] = u"Failed to load audio input device";
        texts[123] = u"Failed to load audio output device";
        texts[124] = u"Doesn't support audio input device";
        texts[125] = u"Doesn't support audio output device";
        texts[126] = u"Invalid Audio file handle when trying to open for writing";
        texts[127] = u"No audio data to write to or invalid audio";
        texts[128] = u"Could not write the audio to the DAQ file (Disk full ?)";
        texts[129] = u"Audio format changed";
        texts[130] = u"Invalid AUD index";
        texts[131] = u"Invalid Audio format";
        texts[132] = u"Audio channel npot match with audio channel number";
        texts[133] = u"Audio data reading failed";
        texts[134] = u"Cannot add more frames to the AVI";
        texts[135] = u"Don't support this function";
        texts[136] = u"Failed to create socket";
        texts[137] = u"Failed to bind socket";
        texts[138] = u"Failed to listen socket";
        texts[139] = u"Failed to disable sends/receives on socket";
        texts[140] = u"Failed to close socket";
        texts[141] = u"Invalid socket";
        texts[142] = u"Server not running";
        texts[143] = u"Server already open";
        texts[144] = u"Client already connected";
        texts[145] = u"Connection failed";
        texts[146] = u"Failed to send data";
        texts[147] = u"Out of range";
        texts[148] = u"No file";
        texts[149] =
            u"Unsupported image size for H.264 encoding,Width should multiple 16 and height "
            u"multiple 8";
        texts[150] = u"H.264 encoding error.";
        texts[151] = u"H.264 decoding error.";
        texts[152] = u"Failed to create sample grabber.";
        texts[153] = u"Failed to set sample grabber callback.";
        texts[154] = u"Failed to add sample grabber to the graph.";
        texts[155] = u"Failed to connect audio source to audio level filter.";
        texts[156] = u"Failed to connect audio level to audio codec.";
        texts[157] = u"Failed to connect audio level to muxer.";
        texts[158] = u"No audio source present.";
        texts[159] = u"Currently not in recording mode.";
        texts[160] = u"No capture graph created.";
        texts[161] = u"Failed to add tag.";
        texts[162] = u"The key frame not found,the frame skipped.";
        texts[163] = u"AVI tag not found.";
        texts[164] = u"An error occured trying to reading from the registry.";
        texts[165] = u"An error occured trying to writing to the registry.";
        texts[166] =
            u"Unsupported format. Createc compression only supports 8 bit mono or mono bayer "
            u"format.";
        texts[167] = u"Invalid LUT file.";
    }
};

constexpr ErrorTextTable kErrorTexts;

}  // namespace

const KChar* KErrorManager::GetErrorString(eKErrorCode code) {
    // Compared unsigned, so negative codes land on the undocumented path with the rest.
    const auto index = static_cast<uint32_t>(code);
    if (index < kTextCount && kErrorTexts.texts[index] != nullptr) return kErrorTexts.texts[index];

    KChar line[100];
    kestor::WideFormat(line, 100, u"Kestor:Undocumented error %d", static_cast<int>(code));
    kestor::DebugOutput(line);
    return u"Sorry, this is an undocumented error, please report this to TavLin";
}
