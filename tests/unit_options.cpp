/*
 * unit_options.cpp -- option types that no row of the table has: encoded keys, and rows
 * of no type.  It takes the source in whole, to reach what the file keeps to itself.
 */
#define pv_socket_option_get unit_option_get // the library's own stand beside these
#define pv_socket_option_get_all unit_option_get_all
#define pv_socket_option_set unit_option_set
#include "socket_options.cpp" // NOLINT(bugprone-suspicious-include)

#include <gtest/gtest.h>
#include <string>

/* Gives the stubs to this copy of the source; see unit.cpp. */
Tcl_Interp* unit_interp();

namespace {

constexpr char key[] = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";

std::string result(Tcl_Interp* interp) {
    return Tcl_GetString(Tcl_GetObjResult(interp));
}

} // namespace

TEST(Options, EncodedKeys) {
    constexpr PVSockOpt opt = {"-key", ZMQ_CURVE_SERVERKEY, read_write, ZO_Z85};
    Tcl_Interp* interp = unit_interp();
    void* ctx = zmq_ctx_new();
    void* socket = zmq_socket(ctx, ZMQ_PUSH);
    PVSockData data;
    data.socket = socket;
    for (const char* text :
         {"", "short", "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf71"}) {
        const ObjRef word(Tcl_NewStringObj(text, -1));
        EXPECT_EQ(pv_option_set_z85(interp, &data, &opt, word.get()), TCL_ERROR);
        EXPECT_EQ(result(interp), "failed to set option \"-key\": key must be a z85 "
                                  "string of 40 characters");
    }
    const ObjRef word(Tcl_NewStringObj(key, -1));
    EXPECT_EQ(pv_option_set_z85(interp, &data, &opt, word.get()), TCL_OK);
    const ObjRef value(pv_option_get_z85(socket, opt.code));
    EXPECT_STREQ(Tcl_GetString(value.get()), key);
    EXPECT_EQ(pv_option_get_z85(nullptr, opt.code), nullptr);
    zmq_close(socket);
    zmq_ctx_term(ctx);
}

TEST(Options, RowsOfNoType) {
    constexpr PVSockOpt opt = {"-none", 0, read_write, ZO_NONE};
    Tcl_Interp* interp = unit_interp();
    EXPECT_EQ(pv_socket_option_get_val(interp, nullptr, &opt), nullptr);
    EXPECT_EQ(result(interp), "unknown type 0 for option \"-none\"");
    EXPECT_EQ(pv_socket_option_set_val(interp, nullptr, &opt, nullptr), TCL_ERROR);
}
