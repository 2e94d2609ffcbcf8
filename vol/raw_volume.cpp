#include "vol/raw_volume.h"

const PcdDataTypeInfo kPcdDataTypes[8] = {
    {UINT8, "UINT8", 1},   {SINT8, "SINT8", 1},     {UINT16, "UINT16", 2},
    {SINT16, "SINT16", 2}, {UINT32, "UINT32", 4},   {SINT32, "SINT32", 4},
    {FLOAT32, "FLOAT32", 4}, {FLOAT64, "FLOAT64", 8},
};

int PCD_IsValidDataType(int32_t type) { return type >= 0 && type <= 7 ? 1 : 0; }

int32_t PCD_SizeOfDataType(int32_t type) {
  return PCD_IsValidDataType(type) ? kPcdDataTypes[type].size : 0;
}

const char* PCD_NameOfDataType(int32_t type) {
  return PCD_IsValidDataType(type) ? kPcdDataTypes[type].name : "?";
}
