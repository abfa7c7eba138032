/*
 * Camera settings in force for one frame. The meaning of the words is the camera code's; this
 * library only carries them.
 */
#pragma once

#include <stdint.h>

namespace morvel {
namespace tovarin {

struct CameraSettings {
    int32_t settingsA[7];
    bool settingsFlag;
    int32_t settingsB[6];

    // Every word zero, the flag false.
    CameraSettings();
};

}  // namespace tovarin
}  // namespace morvel
