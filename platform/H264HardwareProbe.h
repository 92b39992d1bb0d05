// Whether this machine can encode H.264 in hardware, for choosing the encoder of compressed
// recordings. Asks the GPU's video driver through VA-API, which is loaded at run time so the
// library neither needs it to build nor to run.
#pragma once

#include <functional>
#include <vector>

namespace kestor {

// True only when a VA-API driver offers an H.264 profile with a slice-encode entrypoint.
// The machine is asked once; later calls return the same answer.
bool IsH264HardwareEncoderPresent();

// The uncached probe behind it: looks at every render node of the machine.
bool ProbeH264HardwareEncoder();

// The VA-API values the decision needs (stable C ABI of libva 2).
namespace vaapi {
inline constexpr int kProfileH264Main = 6;
inline constexpr int kProfileH264High = 7;
inline constexpr int kProfileH264ConstrainedBaseline = 13;
inline constexpr int kEntrypointEncSlice = 6;
inline constexpr int kEntrypointEncSliceLP = 8;  // low-power encoder of newer GPUs
}  // namespace vaapi

// The decision, kept apart from the driver plumbing: given the profiles a display offers and a
// way to list a profile's entrypoints, true when an H.264 profile can be encoded.
bool OffersH264Encoding(const std::vector<int>& profiles,
                        const std::function<std::vector<int>(int profile)>& entrypointsOf);

}  // namespace kestor
