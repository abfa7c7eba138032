#include <tovarin/CameraSettings.h>

namespace morvel {
namespace tovarin {

CameraSettings::CameraSettings() : settingsA{}, settingsFlag(false), settingsB{} {}

}  // namespace tovarin
}  // namespace morvel
