// The thirteen bus methods of a per-device session process and their help texts.
//
// Each handler builds its option record from `json` (OptionException 400 on bad arguments),
// empties `json` and reuses it as the reply object, runs one operation of the Session
// singleton and replies through zs_reply_forward on `io`/`fd`. Handlers catch nothing: the
// worker that calls them turns exceptions into error replies and releases `json`, `io` and
// `fd` afterwards. `signout` ends the process with _exit(0) once it has replied.
// Handlers keep no state; they run on whichever worker thread the service chooses.
#pragma once

#include <jansson.h>

#include "zservice/zservice.h"

namespace Orvex {

// Help texts, "%SERVICE%"/"%GENERAL%" substituted by the registry. Methods with the same
// options share one text.
extern const char* __signin__;
extern const char* __signout__;
extern const char* __get_device_system_info__;
extern const char* __get_device_rsyslog_config__;
extern const char* __set_device_rsyslog_server_config__;
extern const char* __set_device_rsyslog_client_config__;
extern const char* __get_device_rsyslog_client__;
extern const char* __set_device_rsyslog_client__;
extern const char* __add_device_rsyslog_client__;
extern const char* __del_device_rsyslog_client__;
extern const char* __add_device_rsyslog_client_test__;
extern const char* __set_device_rsyslog_client_enable__;
extern const char* __set_device_rsyslog_client_disable__;

void signin(zs_io* io, json_t*& json, int& fd);
void signout(zs_io* io, json_t*& json, int& fd);
void get_device_system_info(zs_io* io, json_t*& json, int& fd);
void get_device_rsyslog_config(zs_io* io, json_t*& json, int& fd);
void set_device_rsyslog_server_config(zs_io* io, json_t*& json, int& fd);
void set_device_rsyslog_client_config(zs_io* io, json_t*& json, int& fd);
void get_device_rsyslog_client(zs_io* io, json_t*& json, int& fd);
void set_device_rsyslog_client(zs_io* io, json_t*& json, int& fd);
void add_device_rsyslog_client(zs_io* io, json_t*& json, int& fd);
void del_device_rsyslog_client(zs_io* io, json_t*& json, int& fd);
void add_device_rsyslog_client_test(zs_io* io, json_t*& json, int& fd);
void set_device_rsyslog_client_enable(zs_io* io, json_t*& json, int& fd);
void set_device_rsyslog_client_disable(zs_io* io, json_t*& json, int& fd);

}  // namespace Orvex
