// A PKCS#11 module that passes every call to SoftHSM2 and adds the faults SoftHSM cannot show:
// VANTRO_SHIM_FAULT=pin-locked reports the user PIN locked; removed-at-sign answers C_Sign as
// if the token had been pulled out.
#define CRYPTOKI_GNU 1
#include <p11-kit/pkcs11.h>

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>

namespace {

struct ck_function_list* g_target = nullptr;
struct ck_function_list g_shim;

bool fault(const char* name)
{
    const char* wanted = std::getenv("VANTRO_SHIM_FAULT");
    return wanted && std::strcmp(wanted, name) == 0;
}

ck_rv_t getTokenInfo(ck_slot_id_t slot, struct ck_token_info* info)
{
    const ck_rv_t rv = g_target->C_GetTokenInfo(slot, info);
    if (rv == CKR_OK && fault("pin-locked"))
        info->flags |= CKF_USER_PIN_LOCKED;
    return rv;
}

ck_rv_t sign(ck_session_handle_t session, unsigned char* data, unsigned long length,
             unsigned char* signature, unsigned long* signatureLength)
{
    if (fault("removed-at-sign"))
        return CKR_DEVICE_REMOVED;
    return g_target->C_Sign(session, data, length, signature, signatureLength);
}

} // namespace

extern "C" __attribute__((visibility("default"))) ck_rv_t
C_GetFunctionList(struct ck_function_list** list)
{
    if (!g_target) {
        void* library = dlopen(VANTRO_SHIM_TARGET, RTLD_NOW | RTLD_LOCAL);
        using Get = ck_rv_t (*)(struct ck_function_list**);
        auto* get = library ? reinterpret_cast<Get>(dlsym(library, "C_GetFunctionList")) : nullptr;
        if (!get || get(&g_target) != CKR_OK)
            return CKR_GENERAL_ERROR;
        g_shim = *g_target;
        g_shim.C_GetTokenInfo = getTokenInfo;
        g_shim.C_Sign = sign;
    }
    *list = &g_shim;
    return CKR_OK;
}
