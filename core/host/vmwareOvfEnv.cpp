#include "core/host/vmwareOvfEnv.h"

namespace VeskCore {

CvmwareOvfEnv_Adapter::CvmwareOvfEnv_Adapter() : CIdNameObject(true) {
    AddAttribute(VESK_OVF_VMW_NS "mac", &mac, nullptr);
}

CvmwareOvfEnv_Property::CvmwareOvfEnv_Property() : CIdNameObject(true) {
    AddAttribute(VESK_OVF_ENV_NS "key", &key, nullptr);
    AddAttribute(VESK_OVF_ENV_NS "value", &value, nullptr);
}

CvmwareOvfEnv::CvmwareOvfEnv() : CIdNameObject(true) {
    AddAttribute(VESK_OVF_VMW_NS "vCenterId", &vCenterId, nullptr);
    AddChild(&adapters);
    AddChild(&properties);
}

}  // namespace VeskCore
