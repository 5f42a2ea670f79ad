#include "pdfsealmark/outside/TimeStamp.h"

namespace PDF_Vellum {

TimeStamp::TimeStamp(bool service) : service_(service), hashType_(0) {}

TimeStamp::TimeStamp(int hashType) : service_(false), hashType_(hashType) {}

TimeStamp::TimeStamp(const TimeStamp& other) = default;

TimeStamp& TimeStamp::operator=(const TimeStamp& other) = default;

TimeStamp::~TimeStamp() = default;

}  // namespace PDF_Vellum
