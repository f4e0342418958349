/* Firmware access: element-method transport, discovery, platform family. */
#ifndef ZELO_FIRMWARE_H
#define ZELO_FIRMWARE_H

#include <zelo/common.h>

/* Enterprise number of the firmware's maker; at the head of every request,
 * least significant byte first. Fixed when the library is built. */
#ifndef ZELO_IANA_ID
#define ZELO_IANA_ID 0x0F5A1E
#endif

#define NETFN_DUV 0x2E
#define CMDID_ZELO_INVOKE_ELEMENT_METHOD 0x81
#define CMDID_ZELO_FIND_FIRMWARE_INSTANCE 0x82
#define CMDID_ZELO_XPM_EXTENSIONS 0x84

#define ZELO_METHOD_READ_CONFIGURATION 0x80
#define ZELO_METHOD_READ_BUFFER 0x81
#define ZELO_METHOD_READ_REGISTER 0x82
#define ZELO_METHOD_WRITE_REGISTER 0x83
#define ZELO_METHOD_READ_INDEXED_BUFFER 0x87

/* Bytes before the method parameters of a request, and before the data of a
 * response (completion code + identifier echo). */
#define ZELO_REQUEST_HEAD_LEN 6
#define ZELO_RESPONSE_HEAD_LEN 4

/* Firmware instance of the expansion unit; 0 is the server's own firmware. */
#define ZELO_EXPANSION_INSTANCE 1

ZELO_BEGIN_DECLS

/* Request builders: 0, or ZELO_RC_NO_MEMORY with *ppu8Request set to NULL. */
ZELO_API uint8_t GetInvokeElementMethodRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                                     uint8_t u8Method, uint32_t u32RequestLen,
                                                     uint8_t **ppu8Request);
ZELO_API uint8_t GetReadRegisterRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                              uint8_t **ppu8Request);
ZELO_API uint8_t GetWriteRegisterRequestBuffer(uint8_t u8ModuleHandle, uint8_t u8Element,
                                               uint8_t u8RegisterId, uint8_t u8DataLen,
                                               uint8_t **ppu8Request, uint32_t *pu32RequestLen);

ZELO_API uint8_t GetReadStatusRegisterRequestBuffer(uint8_t u8ModuleHandle, uint8_t **ppu8Request);
ZELO_API uint8_t GetReadEnergyAccumulatorRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                               uint8_t **ppu8Request);
ZELO_API uint8_t GetReadClockAccumulationRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                               uint8_t **ppu8Request);
ZELO_API uint8_t GetReadPowerControlRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                          uint8_t **ppu8Request);
ZELO_API uint8_t GetReadExhaustHeatIndexRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                              uint8_t **ppu8Request);
ZELO_API uint8_t GetReadPowerSupplyRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                         uint8_t **ppu8Request);
ZELO_API uint8_t GetReadServerPowerDownRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                             uint8_t **ppu8Request);
ZELO_API uint8_t GetReadPowerMaximizerRequestBuffer(uint8_t u8ModuleHandle, uint8_t **ppu8Request);
ZELO_API uint8_t GetWriteStatusControlRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                            uint8_t u8RegisterId, uint8_t u8DataLen,
                                                            uint8_t **ppu8Request,
                                                            uint32_t *pu32RequestLen);
ZELO_API uint8_t GetWritePowerControlRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                           uint8_t u8RegisterId, uint8_t u8DataLen,
                                                           uint8_t **ppu8Request,
                                                           uint32_t *pu32RequestLen);
ZELO_API uint8_t GetWritePowerSupplyRegisterRequestBuffer(uint8_t u8ModuleHandle,
                                                          uint8_t u8RegisterId, uint8_t u8DataLen,
                                                          uint8_t **ppu8Request,
                                                          uint32_t *pu32RequestLen);

/* One register transaction. ReadRegister hands the response area
 * (u8DataLen + 4 bytes) to the caller, also on failure; release it with
 * CleanReadBuffer. */
ZELO_API uint8_t ReadRegister(uint8_t *pu8Request, uint8_t u8RegisterId, uint8_t u8DataLen,
                              uint8_t **ppu8Response);
ZELO_API uint8_t WriteRegister(uint8_t *pu8Request, uint32_t u32RequestLen);

/* u8Len bytes at pu8Buffer + u32Offset as one big-endian number. */
ZELO_API uint64_t MSBMultiBytesToValue(uint32_t u32Offset, const uint8_t *pu8Buffer, uint8_t u8Len);
ZELO_API void CleanReadBuffer(uint8_t *pu8Request, uint8_t *pu8Response);

/* Discovery and module handle. */
ZELO_API uint8_t ZELO_FindFirmwareInstance(uint8_t u8Instance, uint8_t *pu8Descriptor1,
                                           uint8_t *pu8Descriptor2, uint8_t *pu8ModuleHandle);
ZELO_API int ZELO_IsSupported(int32_t s32Instance);
ZELO_API uint8_t ZELO_GetModuleHandle(int32_t s32Instance);

/* Platform family: 1 on a blade server, else 0. */
ZELO_API unsigned int IsBladeServer(void);

ZELO_END_DECLS

#endif
