/*
 * reactor_bgerror.cpp -- background errors.
 *
 * Scripts that the reactor runs have no caller: their failures go to a handler, a
 * command prefix kept per thread.  An initialised store always holds a prefix.  The
 * handler runs in the interpreter that set the store up and may do anything, the
 * deletion of that interpreter included: nothing is read from the store after it ran.
 */
#include "reactor_bgerror.h"

#include "debugging.h"
#include "tclsupport.h"
#include "utils.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* One per thread, in zero-filled thread data. */
struct PVBgerror {
    bool initialized;       // set up, and holds a prefix
    Tcl_Interp* interp;     // runs handler and presence check
    Tcl_Obj* bgerror;       // command prefix, one reference
    unsigned long failures; // reports so far in the thread; survives set-ups
};

namespace {

constexpr char defaultPrefix[] = "::qel::BgError";

constexpr char defaultScript[] =
    R"tcl(proc ::qel::BgError {err {opt {}}} {
    puts stderr [LogHeader]:[info level 0]
}
proc ::qel::LogHeader {{type error}} {
    return [timestamp]:[::Lib::logicalname]:$type:\[[pid]]:[LogHeaderProgram]
}
proc ::qel::LogHeaderProgram {} {
    global argv0
    if {[info exists argv0]} {
        string tolower [file rootname [file tail [lindex $argv0]]]
    } else {
        return -
    }
}
)tcl";
static_assert(sizeof defaultScript - 1 == 388,
              "to change it takes two places, on purpose");

/* The presence check, around the prefix; a longer script goes unchecked. */
constexpr char checkHead[] = "expr {[llength [info commands [lindex {";
constexpr char checkTail[] = "} 0]]] == 1}";
constexpr size_t checkMax = 1023; // bytes
static_assert(sizeof checkHead + sizeof checkTail - 2 == 51,
              "972 bytes are left for a prefix");

Tcl_ThreadDataKey dataKey;

PVBgerror* thread_bgerror() {
    return static_cast<PVBgerror*>(Tcl_GetThreadData(&dataKey, sizeof(PVBgerror)));
}

/* Defines the default handler and stores it as the prefix. */
int pv_bgerror_default(PVBgerror* s, Tcl_Interp* interp) {
    if (Tcl_EvalEx(interp, defaultScript, sizeof defaultScript - 1, TCL_EVAL_GLOBAL) !=
        TCL_OK) {
        Tcl_SetErrorCode(interp, "QEL", "REACTOR", "BGERROR", "DEFAULT",
                         static_cast<const char*>(nullptr));
        Tcl_AppendResult(interp, "failed to install proc ::qel::BgError",
                         static_cast<const char*>(nullptr));
        return TCL_ERROR;
    }
    if (s->initialized) {
        return TCL_OK; // a trace on the procedures' definition came here first
    }
    Tcl_Obj* prefix = Tcl_NewStringObj(defaultPrefix, -1);
    if (prefix == nullptr) {
        return fail(interp, "failed to create new string value", "QEL", "REACTOR",
                    "BGERROR", "DEFAULT");
    }
    set_slot(s->bgerror, prefix);
    return TCL_OK;
}

PVBgerror* pv_bgerror_init(PVBgerror* s, Tcl_Interp* interp) {
    if (pv_bgerror_default(s, interp) != TCL_OK) {
        return nullptr;
    }
    if (!s->initialized) {
        s->interp = interp;
        s->initialized = true;
    }
    return s;
}

/* Stores a prefix, or a duplicate of one that somebody else holds too. */
void pv_bgerror_set(PVBgerror* s, Tcl_Obj* prefix) {
    set_slot(s->bgerror, unshared(prefix));
}

/*
 * Tells whether the first word of prefix names exactly one command; taken as true
 * when the check cannot be made.
 */
bool pv_bgerror_present(Tcl_Interp* interp, const char* prefix) {
    char script[checkMax + 1];
    int present = 1;
    if (strlen(prefix) + sizeof checkHead + sizeof checkTail - 2 > checkMax) {
        return true;
    }
    snprintf(script, sizeof script, "%s%s%s", checkHead, prefix, checkTail);
    if (Tcl_EvalEx(interp, script, -1, TCL_EVAL_GLOBAL) == TCL_OK) {
        Tcl_GetBooleanFromObj(nullptr, Tcl_GetObjResult(interp), &present);
    }
    Tcl_ResetResult(interp);
    return present != 0;
}

int pv_bgerror_get(PVBgerror* s) {
    const InterpHold interp(s->interp);
    const ObjRef prefix(s->bgerror);
    if (prefix.get() == nullptr) {
        return fail(interp.get(), "no bgerror was set", "QEL", "REACTOR", "BGERROR",
                    "GET");
    }
    if (!pv_bgerror_present(interp.get(), Tcl_GetString(prefix.get()))) {
        return fail(interp.get(),
                    Tcl_ObjPrintf("bgerror is set, but command in \"%s\" is missing",
                                  Tcl_GetString(prefix.get())),
                    "QEL", "REACTOR", "BGERROR", "GET");
    }
    Tcl_SetObjResult(interp.get(), prefix.get());
    return TCL_OK;
}

/*
 * Begins a handler call: the words of the prefix.  A prefix that is no list, or has no
 * word, stays one word: the call fails with a message that shows it, and what comes
 * behind it is never taken for a command.
 */
Tcl_Obj* handler_call(Tcl_Obj* prefix) {
    Tcl_Size words = 0;
    Tcl_Obj* call = Tcl_NewListObj(0, nullptr);
    if (Tcl_ListObjAppendList(nullptr, call, prefix) != TCL_OK ||
        Tcl_ListObjLength(nullptr, call, &words) != TCL_OK || words == 0) {
        Tcl_ListObjAppendElement(nullptr, call, prefix);
    }
    return call;
}

int handler_evaluate(Tcl_Interp* interp, Tcl_Obj* call) {
    return Tcl_EvalObjEx(interp, call, TCL_EVAL_GLOBAL | TCL_EVAL_DIRECT);
}

/*
 * Evaluates nothing, which fails when a limit of interp is exceeded or its evaluation
 * is cancelled.  Tcl looks at a limit only now and then, counted in evaluations: the
 * granularity of 1 makes it look now.
 */
int evaluate_nothing(Tcl_Interp* interp) {
    constexpr int types[] = {TCL_LIMIT_COMMANDS, TCL_LIMIT_TIME};
    const ObjRef empty(Tcl_NewObj());
    for (const int type : types) {
        if (Tcl_LimitTypeEnabled(interp, type) == 0) {
            continue;
        }
        const int granularity = Tcl_LimitGetGranularity(interp, type);
        Tcl_LimitSetGranularity(interp, type, 1);
        const int code = Tcl_LimitCheck(interp);
        Tcl_LimitSetGranularity(interp, type, granularity);
        if (code != TCL_OK) {
            return code;
        }
    }
    return Tcl_EvalObjEx(interp, empty.get(), TCL_EVAL_GLOBAL);
}

/* The handler itself failed; its message is interp's result. */
void handler_failed(Tcl_Interp* interp, Tcl_Obj* message, Tcl_Obj* options) {
    char now[timestampMax];
    timestamp(now, sizeof now);
    fprintf(stderr,
            "%s:-:[%d]:-:error:bgerror:-: error <%s> occurred while reporting on\n"
            "\terror <%s>\n\toptions <%s>\n",
            now, getpid(), Tcl_GetStringResult(interp), Tcl_GetString(message),
            Tcl_GetString(options));
}

void pv_bgerror_msg_report(const char* message) {
    char now[timestampMax];
    timestamp(now, sizeof now);
    fprintf(stderr, "%s:-:error:[%d]:-:bgerror: %s", now, getpid(), message);
}

void no_record(int code) {
    fprintf(stderr, "-- %s: failed to get bgerror instance for error code %d\n",
            "pv_bgerror_code", code);
}

/* Gives the message to the handler; false when there is none or it fails. */
bool handler_takes(const char* message, int length) {
    PVBgerror* s = pv_bgerror(nullptr);
    if (s == nullptr) {
        return false;
    }
    s->failures++;
    const InterpHold interp(s->interp);
    const ObjRef call(handler_call(s->bgerror));
    Tcl_ListObjAppendElement(nullptr, call.get(), Tcl_NewStringObj(message, length));
    const int code = handler_evaluate(interp.get(), call.get());
    Tcl_ResetResult(interp.get());
    return code == TCL_OK;
}

} // namespace

PVBgerror* pv_bgerror(Tcl_Interp* interp) {
    PVBgerror* s = thread_bgerror();
    if (s == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get bgerror thread data", "QEL", "REACTOR",
                 "BGERROR", "THREAD", "DATA");
        }
        return nullptr;
    }
    if (s->initialized && Tcl_InterpDeleted(s->interp) == 0) {
        return s;
    }
    return interp != nullptr ? pv_bgerror_init(s, interp) : nullptr;
}

void pv_bgerror_destroy() {
    PVBgerror* s = thread_bgerror();
    if (!s->initialized) {
        return;
    }
    set_slot(s->bgerror, nullptr);
    s->initialized = false;
    s->interp = nullptr;
    DEBUG_LINE("pv_bgerror_destroy", "released bgerror data");
}

unsigned long pv_bgerror_failures(const PVBgerror* s) {
    return s->failures;
}

bool pv_interp_evaluates(Tcl_Interp* interp) {
    const int code = evaluate_nothing(interp);
    if (code == TCL_OK) {
        return true;
    }
    // A cancellation that unwinds fails every evaluation, a plain one fails one.
    Tcl_InterpState cancelled = Tcl_SaveInterpState(interp, code);
    if (evaluate_nothing(interp) != TCL_OK) {
        Tcl_DiscardInterpState(cancelled);
        return false;
    }
    Tcl_RestoreInterpState(interp, cancelled);
    if (interp != thread_bgerror()->interp) {
        return false; // its only script here is the call of start
    }
    pv_bgerror_code(code);
    return true;
}

void pv_interp_pass_error(Tcl_Interp* to, Tcl_Interp* from) {
    Tcl_Obj* code = nullptr;
    if (to == from || Tcl_InterpDeleted(to) != 0) {
        return;
    }
    const ObjRef message(Tcl_GetObjResult(from));
    const ObjRef key(Tcl_NewStringObj("-errorcode", -1));
    const ObjRef options(Tcl_GetReturnOptions(from, TCL_ERROR));
    Tcl_DictObjGet(nullptr, options.get(), key.get(), &code);
    if (code != nullptr) {
        Tcl_SetObjErrorCode(to, code);
    }
    Tcl_SetObjResult(to, message.get());
}

/* ::qel::reactor bgerror ?cmdPrefix? */
int pv_cmd_bgerror(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    PVBgerror* s = pv_bgerror(interp);
    if (s == nullptr) {
        return TCL_ERROR;
    }
    if (objc == 3) {
        pv_bgerror_set(s, objv[2]);
    }
    return pv_bgerror_get(s);
}

void pv_bgerror_eval(Tcl_Interp* interp, Tcl_Obj* script, int flags) {
    const int code = Tcl_EvalObjEx(interp, script, flags);
    if (code == TCL_OK) {
        return;
    }
    if (Tcl_InterpDeleted(interp) != 0) {
        no_record(code);
    } else {
        pv_bgerror_code(code);
    }
}

void pv_bgerror_code(int code) {
    PVBgerror* s = pv_bgerror(nullptr);
    if (s == nullptr) {
        no_record(code);
        return;
    }
    s->failures++;
    const InterpHold interp(s->interp);
    const ObjRef prefix(s->bgerror); // the callbacks of a limit are scripts
    Tcl_InterpState failure = Tcl_SaveInterpState(interp.get(), code);
    if (!pv_interp_evaluates(interp.get())) {
        Tcl_DiscardInterpState(failure);
        return;
    }
    Tcl_RestoreInterpState(interp.get(), failure);
    const ObjRef message(Tcl_GetObjResult(interp.get()));
    const ObjRef options(Tcl_GetReturnOptions(interp.get(), code));
    const ObjRef call(handler_call(prefix.get()));
    Tcl_ListObjAppendElement(nullptr, call.get(), message.get());
    Tcl_ListObjAppendElement(nullptr, call.get(), options.get());
    if (handler_evaluate(interp.get(), call.get()) != TCL_OK) {
        handler_failed(interp.get(), message.get(), options.get());
    }
    Tcl_ResetResult(interp.get());
}

void pv_bgerror_msg(const char* fmt, ...) {
    va_list args;
    char* message;
    va_start(args, fmt);
    const int length = vasprintf(&message, fmt, args);
    va_end(args);
    if (length == -1) {
        return;
    }
    if (!handler_takes(message, length)) {
        pv_bgerror_msg_report(message);
    }
    free(message);
}
