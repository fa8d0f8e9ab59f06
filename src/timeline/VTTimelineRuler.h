// The ruler's tick spacing, shared by the view's drawing and its tests.
//
// Contract: `tickSpacing(pointsPerSecond)` answers the distance in points
// between two ticks: a whole number of 10 ms steps, normally 20 to 40 points
// (the 10 ms width itself when that is already 20 to 40). Pure arithmetic.
#pragma once

namespace brindle::timeline {

double tickSpacing(double pointsPerSecond);

}  // namespace brindle::timeline
