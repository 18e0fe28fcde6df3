#include "helper/doctor/system.h"

namespace vesko {

DoctorSystem doctorSystem() {
  return {};
}

}  // namespace vesko
