// Calls into the HAL library, by name, with a fixed signature per use.
#include <exception>

#include "platform/LogMessage.h"
#include "service/SFService.h"

int SFService::Execute(std::string funcName, std::vector<char>* in, std::vector<char>* out) {
    if (!m_pDllParser->GetFunction(funcName)) return 1001;
    try {
        return ExcecuteFunc<int, std::vector<char>*, std::vector<char>*>(m_pDllParser, funcName, in,
                                                                         out);
    } catch (const std::exception& e) {
        LogMessage(4, "VORN", "Execute").stream()
            << "HAL function " << funcName << " threw: " << e.what();
    } catch (...) {
        LogMessage(4, "VORN", "Execute").stream() << "HAL function " << funcName << " threw";
    }
    out->clear();
    return 1001;
}

void* SFService::HalMalloc(int size) {
    if (!m_pDllParser->GetFunction("vorn_hal_malloc")) return nullptr;
    try {
        return ExcecuteFunc<void*, int>(m_pDllParser, "vorn_hal_malloc", size);
    } catch (...) {
        LogMessage(4, "VORN", "HalMalloc").stream() << "vorn_hal_malloc threw";
        return nullptr;
    }
}

int SFService::HalFree(void* block) {
    if (!m_pDllParser->GetFunction("vorn_hal_free")) return 1;
    try {
        return ExcecuteFunc<int, void*>(m_pDllParser, "vorn_hal_free", block);
    } catch (...) {
        LogMessage(4, "VORN", "HalFree").stream() << "vorn_hal_free threw";
        return 1001;
    }
}
