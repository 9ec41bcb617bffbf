// Shared pieces of the fuzz targets: one engine with the module loaded for the
// whole run, host value makers, and checks that hold after every call.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <string>
#include <string_view>
#include <vector>

#include "Engine.h"
#include "Ombrix/Interfaces.h"

namespace Fuzz {

using Ombrix::AutoRefPtr;
using Ombrix::IDataRef;
using Ombrix::IVariant;
using Ombrix::Host::CallOutcome;
using Ombrix::Host::Engine;
using Args = std::vector<AutoRefPtr<IVariant>>;

// The engine with the module loaded; built on first use, kept for the run.
Engine& ModuleEngine();

AutoRefPtr<IVariant> Str(std::string text);
AutoRefPtr<IVariant> Num(double number);
// A DATAREF over the bytes. Without contiguous bytes, GetData() is null and
// the module has to read through Read, as with a file-backed buffer.
AutoRefPtr<IVariant> Dat(std::string bytes, bool contiguous = true);

// Runs a routine by name and aborts when the call breaks the entry-point
// contract: an argument refused, an OpenSSL error left queued, or a report
// without an id or message.
CallOutcome Call(std::string_view name, Args arguments);

// Result readers ("" / false / 0 when the result holds nothing).
std::string ResultString(const CallOutcome& outcome);
std::string ResultBytes(const CallOutcome& outcome);
bool ResultBoolean(const CallOutcome& outcome);
double ResultNumber(const CallOutcome& outcome);

// Whether a value holds a module or JSON object.
bool HasObject(const AutoRefPtr<IVariant>& value);

// Runs the read-only certificate routines on a certificate value, its public
// key among them.
void ExerciseCertificate(const AutoRefPtr<IVariant>& cert);

std::string DataPath(const std::string& name);  // a file of tests/data

// A test fixture for a file name taken from the input: the fixture of that
// name, else one chosen by a hash of the name (files are read from disk, so
// arbitrary paths would read arbitrary files, devices or FIFOs).
std::string FixturePath(const std::string& chosen);
// Rewrites the file settings of a CreateSSL configuration ("CAFile", "CAPath",
// "Cert", "Key") to fixtures. The default CA locations point at fixtures too
// (set when the engine is made).
void RestrictFileSettings(Ombrix::IJSON& configuration);
std::string ReadFile(const std::string& path);

// Stops the run with a message naming the broken expectation.
[[noreturn]] void Fail(const std::string& what);

// Whether a PEM text asks for work that is slow by design: a block holding
// an encrypted PKCS#8 structure whose algorithm parameters carry a large
// integer (iteration count, scrypt cost). The targets leave such inputs out.
bool CostlyEncryptedPEM(std::string_view text);

}  // namespace Fuzz
