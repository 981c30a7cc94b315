// Deterministic generators of the bencode benchmark's inputs. Each returns the bytes of a
// file just under MAX_BENCODE_FILE_SIZE (10 MiB), the same on every run and machine.
#pragma once

#include <string>

namespace bencodebench {

// A feedback report: the payload list [7, machine id, 3, [start, end, level-3 dictionary]]
// whose "QualityImprovementData" holds four modules' data dictionaries (a few thousand
// keys each of short values, nested four levels) and one crash report with a 400 KiB base64 dump.
std::string GeneratePayload();

// A flat dictionary of 200 000 short keys with short string and integer values.
std::string GenerateFlatDictionary();

// A list of 20 strings of 524280 bytes (the largest that keep 20 of them under the limit).
std::string GenerateStringList();

}  // namespace bencodebench
