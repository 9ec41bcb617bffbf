// The reference Ombrix engine: loads modules, binds their declarations, hands
// out type codes, chooses overloads and runs calls (with interruptions).
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Ombrix/Interfaces.h"
#include "Services.h"
#include "Variant.h"

namespace Ombrix::Host {

class Engine;

using TypeFactory = IUserDefinedType* (*)(uint32_t typeId, IContext* context);

struct Declaration {
    enum class Kind { Function, Procedure, Type };

    Kind kind = Kind::Function;
    std::string resultType;               // empty for procedures and types
    std::string name;                     // "Cryptography.Hash"
    std::vector<std::string> parameters;  // type names
    std::string entryName;                // exported symbol
    uint32_t resultCode = 0;
    std::vector<uint32_t> parameterCodes;
    RoutineEntry entry = nullptr;
    TypeFactory factory = nullptr;
    std::string module;

    std::string Namespace() const { return name.substr(0, name.find('.')); }
    std::string ShortName() const { return name.substr(name.find('.') + 1); }
    // "FUNCTION STRING Cryptography.X (STRING,NUMBER)"
    std::string Text() const;
};

// Splits a module definition text into declarations; throws std::runtime_error
// naming the position of the first thing it cannot read.
std::vector<Declaration> ParseDefinition(std::string_view text);

struct ErrorReport {
    int32_t severity = 0;
    std::string moduleNamespace;
    std::string id;
    std::string message;
};

struct CallOutcome {
    const Declaration* declaration = nullptr;
    uint32_t status = 0;
    AutoRefPtr<Variant> result;
    std::vector<ErrorReport> errors;  // in the order they were reported
    int resumptions = 0;

    bool ok() const { return status == 0 && errors.empty(); }
    const ErrorReport* error() const { return errors.empty() ? nullptr : &errors.front(); }
};

// A call started with Engine::Start: runs until it finishes or parks on an event.
using CallHandle = uint64_t;
struct CallRecord;  // EngineLoop.h

struct LoadedModule {
    std::string path;
    void* handle = nullptr;
    std::string name;
    std::map<std::string, std::string> exports;  // data export name -> value
    std::string definition;
    std::vector<std::string> unresolved;         // declared entry points that did not resolve
    bool registered = false;
};

// A host routine offered to scripts and modules (JSON, Net, ...).
struct HostRoutine {
    std::string declaration;  // as a module would declare it, e.g. "FUNCTION JSON JSON.FromString (STRING)"
    RoutineEntry entry;
};

// The plain pointers of argument values, as entry points and the overload
// choice take them; a few are held without allocating.
class ArgumentPointers {
public:
    explicit ArgumentPointers(const std::vector<AutoRefPtr<IVariant>>& arguments)
        : heap_(arguments.size() > kInline ? arguments.size() : 0),
          pointers_(arguments.size() > kInline ? heap_.data() : inline_),
          size_(arguments.size()) {
        for (size_t i = 0; i < size_; ++i) pointers_[i] = arguments[i].get();
    }
    ArgumentPointers(const ArgumentPointers&) = delete;
    ArgumentPointers& operator=(const ArgumentPointers&) = delete;

    std::span<IVariant* const> Span() const noexcept { return {pointers_, size_}; }

private:
    static constexpr size_t kInline = 8;
    IVariant* inline_[kInline] = {};
    std::vector<IVariant*> heap_;
    IVariant** pointers_;
    size_t size_;
};

class Engine {
public:
    struct Options {
        std::map<std::string, std::string> configuration;
        bool verboseLog = false;
        int maxResumptions = 1000;
        // Offer the host's JSON routines; tests of missing imports turn this off.
        bool jsonModule = true;
        // Base type number of the first custom type (JSON); the module types
        // follow in declaration order. Hosts hand out these numbers as they
        // like, so tests move them to catch a module relying on one numbering.
        uint32_t firstCustomBase = kBaseFirstCustom;
    };

    Engine();
    explicit Engine(Options options);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    // dlopen, data exports, definition, RegisterModule, binding. Throws
    // std::runtime_error when the library cannot be loaded or registered.
    // The engine deregisters and unloads its modules when it is destroyed, so
    // every value a module made must be released before that.
    const LoadedModule& Load(const std::string& path);
    void AddHostModule(const std::string& name, const std::vector<HostRoutine>& routines);
    const std::vector<std::unique_ptr<LoadedModule>>& Modules() const { return modules_; }
    // Every declared entry point of every module that did not resolve.
    std::vector<std::string> Unresolved() const;

    void SetConfiguration(const std::string& key, const std::string& value) { configuration_->Set(key, value); }
    void SetPolicy(const std::string& name, uint64_t identity);
    AutoRefPtr<IPolicy> GetPolicy() const { return policy_; }
    Logger& Log() { return *logger_; }
    AutoRefPtr<IEventScheduler> Scheduler() const { return scheduler_; }

    // Type codes: built-ins, JSON, module TYPEs, and VECTOR<...> of any of them.
    uint32_t FindType(std::string_view name) const;
    // Whether a code is a built-in type or one this engine handed out (in any container).
    bool KnowsType(uint32_t code) const;
    std::string TypeName(uint32_t code) const;
    AutoRefPtr<Variant> CreateInstance(uint32_t code) const;
    // A fresh value of a module type through its TYPE factory; null when unknown.
    AutoRefPtr<IUserDefinedType> NewValue(std::string_view typeName);
    // A module value restored from JSON text; null when the type is unknown or
    // the text is refused.
    AutoRefPtr<IUserDefinedType> Deserialize(std::string_view typeName, std::string_view jsonText);

    // Declarations by script name (overloads in declaration order).
    const std::vector<const Declaration*>& Overloads(std::string_view name) const;
    std::vector<std::string> Namespaces() const;
    std::vector<std::string> RoutineNames(std::string_view ns) const;
    // How an argument stands to a parameter in the overload choice: of its
    // type, of another type that the caller converts for that parameter, or
    // not fitting.
    enum class Fit { None, Converted, Exact };
    using FitRule = Fit (*)(const IVariant* argument, uint32_t parameterCode);
    // A null argument fits nothing; any other fits its own type code only.
    static Fit ExactFit(const IVariant* argument, uint32_t parameterCode);
    // The overload a call runs. Overloads with as many parameters as there
    // are arguments are the candidates; only when there are none do the
    // shorter ones whose parameters fit the leading arguments compete, the
    // longest winning (surplus arguments are then ignored). Among fitting
    // candidates the one with fewest conversions wins, then the first
    // declared. When none fits, the candidate (or, without candidates, the
    // overload) fitting the most leading arguments is returned, so that its
    // argument status names the wrong position. Null when the name is unknown.
    const Declaration* Choose(std::string_view name, const std::vector<AutoRefPtr<IVariant>>& arguments) const;
    // The same choice among the overloads of one name (as Overloads returns them).
    static const Declaration* ChooseAmong(const std::vector<const Declaration*>& overloads,
                                          std::span<IVariant* const> arguments, FitRule fit = ExactFit);
    const Declaration* FindEntry(std::string_view entryName) const;
    // The routine matching a name and a signature (result type, then parameters).
    const Declaration* FindRoutine(std::string_view name, const std::vector<std::string>& signature,
                                   bool procedure) const;
    // How many routine lookups (GetFunction, GetProcedure) modules have made.
    uint64_t LookupCount() const { return lookups_.load(); }
    void CountLookup() const { ++lookups_; }

    // Runs a routine chosen by name and argument types; throws
    // std::invalid_argument for an unknown name. The synchronous calls use
    // the caller's arguments in place; a call that parks takes its own
    // references to them and copies of what is lent (StartBorrowed).
    CallOutcome Call(std::string_view name, const std::vector<AutoRefPtr<IVariant>>& arguments);
    // Runs one declaration (by entry-point name), bypassing overload choice.
    CallOutcome CallEntry(std::string_view entryName, const std::vector<AutoRefPtr<IVariant>>& arguments);
    CallOutcome CallDeclaration(const Declaration& declaration, const std::vector<AutoRefPtr<IVariant>>& arguments,
                                bool withResult = true);
    // The same with the arguments as the entry point takes them, lent by the
    // caller for the whole call.
    CallOutcome CallBorrowed(const Declaration& declaration, std::span<IVariant* const> arguments,
                             bool withResult = true);
    // Starts a call with arguments lent by the caller. When it finishes at
    // once, its outcome is stored in `outcome` and 0 returned: nothing was
    // copied. When it parks, it takes its own references to the arguments
    // and copies of every lent value (Variant::Owning), so the caller's
    // values and lent bytes may go at once, and the handle is returned.
    CallHandle StartBorrowed(const Declaration& declaration, std::span<IVariant* const> arguments, bool withResult,
                             CallOutcome& outcome);

    // Calls that wait without holding the thread. Start runs a call until it
    // finishes or interrupts with an event; an interrupted call is parked, and
    // the event loop resumes it (IsResuming() true, same per-call user data)
    // when its descriptor is ready or its timeout passes. The synchronous
    // calls above run the call at once; only when it parks do they turn the
    // loop until it finishes, moving every other parked call on meanwhile.
    // Host threads may call at the same time: the record of started calls is
    // guarded, and a parked call is resumed by one thread only.
    CallHandle Start(std::string_view name, std::vector<AutoRefPtr<IVariant>> arguments);
    CallHandle StartDeclaration(const Declaration& declaration, std::vector<AutoRefPtr<IVariant>> arguments,
                                bool withResult = true);
    // True when the call has finished; false while it is parked (or unknown).
    bool Finished(CallHandle call) const;
    // The outcome of a finished call, which the engine then forgets. Throws
    // std::invalid_argument for an unknown or unfinished call.
    CallOutcome TakeOutcome(CallHandle call);
    // One turn of the loop: waits at most timeoutMilliseconds (negative: until
    // something happens) for the events of the parked calls, then resumes each
    // call whose event fired or timed out. Returns how many were resumed; 0 at
    // once when nothing is parked.
    size_t RunOnce(int timeoutMilliseconds = -1);
    // Turns the loop until no call is parked.
    void RunUntilIdle();
    // Turns the loop until the call has finished.
    void RunUntilFinished(CallHandle call);
    size_t ParkedCalls() const;

private:
    uint32_t DeclareType(const std::string& name);
    void Bind(LoadedModule& module, std::vector<Declaration> declarations);
    CallRecord& Record(CallHandle call) const;
    void Prepare(CallRecord& call, const Declaration& declaration, bool withResult);
    void Step(CallRecord& call);
    CallHandle Park(std::unique_ptr<CallRecord> call);
    // A parked call of a borrowing start, moved to the heap with its own
    // references to the arguments it borrowed and copies of lent bytes.
    static std::unique_ptr<CallRecord> Detach(CallRecord& run);

    Options options_;
    AutoRefPtr<Configuration> configuration_;
    AutoRefPtr<Logger> logger_;
    AutoRefPtr<IPolicy> policy_;
    AutoRefPtr<EventScheduler> scheduler_;
    std::vector<std::unique_ptr<LoadedModule>> modules_;
    std::vector<std::unique_ptr<Declaration>> declarations_;
    // Routine declarations by script name, built at binding so calls need no scan.
    std::map<std::string, std::vector<const Declaration*>, std::less<>> overloads_;
    std::map<std::string, uint32_t, std::less<>> types_;        // single custom types
    std::map<uint32_t, const Declaration*> typeDeclarations_;   // code -> TYPE declaration
    mutable std::atomic<uint64_t> lookups_{0};
    // Started calls not yet taken, and the next handle; guarded by callsMutex_.
    // Records are reached through stable map nodes, so a record stays put
    // while other calls are added or taken.
    mutable std::mutex callsMutex_;
    std::map<CallHandle, std::unique_ptr<CallRecord>> calls_;
    CallHandle nextCall_ = 1;
};

}  // namespace Ombrix::Host
