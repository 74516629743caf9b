// Where rate overlays read the frame rates from.
#pragma once

class RateSource {
public:
    virtual ~RateSource() = default;
    // Frames committed into the ring per second; safe from any thread.
    virtual double queueRate() const = 0;
    // Frames taken out of the ring per second; safe from any thread.
    virtual double dequeueRate() const = 0;
};
