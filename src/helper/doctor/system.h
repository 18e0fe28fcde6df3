// The doctor's questions to the system it runs on. Any thread.
#pragma once

#include "helper/doctor/place.h"

namespace vesko {

/// Empty where nothing is known of the system.
DoctorSystem doctorSystem();

}  // namespace vesko
