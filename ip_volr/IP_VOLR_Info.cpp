#include "ip_volr/IP_VOLR_Info.h"

#include "ip_volr/kernels/instruction_set.h"

IP_VOLR_Info IP_VOLR_GetInfo() {
    return {ip_volr::kernels::instruction_set_name(ip_volr::kernels::instruction_set()), IP_VOLR_VERSION};
}
