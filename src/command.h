/*
 * command.h -- tables of subcommands and methods, which read as the manual does.
 *
 * A table is an array of rows with static storage, for Tcl remembers its address in the
 * words that it looked up, and ends with a row whose word is null.  A row begins with a
 * CommandRow; tables that need more derive from it.
 */
#ifndef PARVO_COMMAND_H
#define PARVO_COMMAND_H

#include <limits.h>
#include <stddef.h>
#include <tcl.h>

constexpr int anyNumber = INT_MAX; // of words

/* One word of a command, for a subject such as a socket's record. */
template <typename Subject> struct CommandRow {
    const char* word;  // as scripts write it
    int least;         // fewest words of a call, the words up to this one included
    int most;          // most words
    const char* usage; // what follows this word in the message about a wrong number
    int (*proc)(Subject* subject, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
};

/* Tells, when it is compiled, that a table has its last row. */
template <typename Row, size_t count>
constexpr bool table_ends(const Row (&rows)[count]) {
    return rows[count - 1].word == nullptr;
}

/*
 * Leaves Tcl's message about a wrong number of words in interp: the first words of
 * objv, as many as kept says, and usage (null: nothing more).  Returns TCL_ERROR.
 */
inline int wrong_count(Tcl_Interp* interp, int kept, Tcl_Obj* const objv[],
                       const char* usage) {
    Tcl_WrongNumArgs(interp, kept, objv, usage);
    return TCL_ERROR;
}

/*
 * The row whose word, or a unique beginning of it, is written in a word of a script;
 * null with Tcl's message left in interp (null: nowhere).  what: Tcl's name for such a
 * word.
 */
template <typename Row>
const Row* command_row(Tcl_Interp* interp, const Row* rows, Tcl_Obj* word,
                       const char* what) {
    int index;
    return Tcl_GetIndexFromObjStruct(interp, word, rows, sizeof *rows, what, 0,
                                     &index) == TCL_OK
               ? &rows[index]
               : nullptr;
}

/*
 * Runs a row's procedure, or refuses a wrong number of words with a message that keeps
 * the first ones.  Returns a Tcl code; result and error are in interp.
 */
template <typename Subject>
int command_run(const CommandRow<Subject>* row, int kept, Subject* subject,
                Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return objc >= row->least && objc <= row->most
               ? row->proc(subject, interp, objc, objv)
               : wrong_count(interp, kept, objv, row->usage);
}

#endif
