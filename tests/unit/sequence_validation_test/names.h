// What is said and asked about its names.
#ifndef UNIT_SEQUENCE_VALIDATION_NAMES_H
#define UNIT_SEQUENCE_VALIDATION_NAMES_H

#include "fakes/copyable_row.h"
#include "fakes/sequence.h"

#include <cerrno>

namespace sequence_validation {

using namespace fakes;

// What is said and asked about the names

const Lines asked_destination = {
    D("validate_filename: calling uriutil_uri_to_path for destination file=bootflash:new\n"),
    "uriutil_uri_to_path uri=bootflash:new size=255 flags=0",
};
const Lines destination_unresolved =
    joined({asked_destination, {E("uriutil_uri_to_path for destination returned ERROR.\n")}});
const Lines destination_stat =
    joined({asked_destination, {"uriutil_stat_get uri=bootflash:new flags=0"}});
const Lines destination_accepted = {
    D("validate_filename: returning SUCCESS with dest filename=/bootflash/new\n")};
const Lines destination_new =
    joined({destination_stat, {D("Adding a new file.\n")}, destination_accepted});
const Lines destination_existing = joined({destination_stat, destination_accepted});
const Lines destination_directory =
    joined({destination_stat, {E("destination cannot be directory.\n")}});

const Lines asked_source = {
    D("validate_filename: calling uriutil_uri_to_path for source file=bootflash:old\n"),
    "uriutil_uri_to_path uri=bootflash:old size=255 flags=0",
};
const Lines source_resolved =
    joined({asked_source,
            {D("validate_filename: returning SUCCESS with source filename=/bootflash/old\n")}});
const Lines asked_core = joined({asked_source,
                                 {D("uriutil_uri_to_path for source returned ERROR.\n"),
                                  "svcmgrcmi_core_uri_to_path queue=77 uri=bootflash:old"}});
const Lines core_resolved = joined(
    {asked_core, {D("validate_filename: returning SUCCESS with source filename=/core/7\n")}});
const Lines source_unresolved =
    joined({asked_core, {E("svcmgrcmi_core_uri_to_path for source returned ERROR (41000003).\n")}});

const Lines asked_log = {
    D("validate_filename: want to copy a logfile.\n"),
    "get_snmp_username request=0",
    "get_snmp_sessionid request=0",
    "syslog_disp_logfile user=operator session=12 kind=5 log=/var/log/external/messages "
    "output=/var/tmp/intsyslog 0 0 0",
};
const Lines log_dumped = joined(
    {asked_log, {D("Tring to print expandedDestFileName..\n"), D("expandedDestFileName is \n")}});
const Lines log_not_dumped = joined({asked_log, {E("syslog_disp_logfile returned ERROR.\n")}});

// The rules

const Lines entering = {D("Entering validate_flash_entry()...\n")};
const Lines protocol_refused = {
    E("ERROR  validate_flash_entry : lex and rcp protocols not supported. \n"),
    E("flashCopyProtocol:rcp and lex not supported. ...\n")};
const Lines log_refused = {
    E("ERROR  validate_flash_entry : copyFromFlhLog command is not supported\n"),
    E("flashCopyCommand:COPY_FROM_FLHLOG not supported. ...\n")};
const Lines erase_refused = {E("ERROR  validate_flash_entry : Copy without ERASE NOT supported\n"),
                             E("flashCopyCommand:Copy without ERASE NOT supported. ...\n")};
const Lines lex_refused = {
    E("ERROR  validate_flash_entry : Only allowed protocol are TFTP and RCP \n"),
    E("flashCopyProtocol:COPY_PROT_LEX not supported. ...\n")};
const Lines mandatory_missing = {E(
    "ERROR  validate_flash_entry : Protocol,Server addr and source name are MANDATORY objects\n")};
const Lines bad_destination_logged = {"syserr_format code=0x4049001d",
                                      D("Logged the error text of 0x4049001d\n"),
                                      "log_snmp_error code=0x4049001d text=text of 0x4049001d"};
const Lines bad_source_logged = {"syserr_format code=0x4049001c",
                                 "log_snmp_error code=0x4049001c text=text of 0x4049001c"};

// The platform as a case finds it.
using Setting = void (*)();
const Setting all_resolve = [] {
    platform().paths["bootflash:new"] = "/bootflash/new";
    platform().paths["bootflash:old"] = "/bootflash/old";
};
const Setting none_resolves = [] {};
const Setting existing_file = [] {
    all_resolve();
    platform().file_types["bootflash:new"] = 1;
};
const Setting directory = [] {
    all_resolve();
    platform().file_types["bootflash:new"] = 32;
};
// A platform that reports a missing file by a negative code.
const Setting negative_stat = [] {
    all_resolve();
    platform().uriutil_stat_get.always(-1);
};
const Setting core_file = [] { platform().core_paths["bootflash:old"] = "/core/7"; };
const Setting core_elsewhere = [] {
    core_file();
    platform().core_result = 0x401E0059;
};
const Setting no_dump = [] { platform().syslog_disp_logfile.always(-1); };

} // namespace sequence_validation

#endif
