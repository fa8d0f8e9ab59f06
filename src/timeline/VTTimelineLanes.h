// The timeline's vertical layout, in points, shared by its geometry, drawing
// and hit-testing: the ruler along the top, then one lane per track, each
// lane 68 points high on a pitch of 69 (a one-point gap between lanes).
#pragma once

namespace brindle::timeline {

constexpr double kRulerHeight = 19;
constexpr double kLaneHeight = 68;
constexpr double kLanePitch = 69;

}  // namespace brindle::timeline
