/* A plug-in that does nothing; tests replace its functions with their own. */
#include "LanguageAbstraction.h"

void InitialiseChannel(AppendBufferFunc append, uint32_t kind, void* context) {
    (void)append;
    (void)kind;
    (void)context;
}

uint32_t ReceiveData(unsigned char* data, uint32_t length) {
    (void)data;
    return length;
}

void ChannelActive(uint32_t state) { (void)state; }

void Shutdown(void) {}

const char* getChannelName(void) { return "NRVOCW"; }

void LogMessage_VDI(int level, const char* message) {
    (void)level;
    (void)message;
}
