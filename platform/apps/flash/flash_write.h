// SNMP write side: the SET handlers of every writable column of both tables.
//
// All have the agent's write-method form and are called once per phase of a SET; they return the
// SNMP error status of that phase. The row index is the last arc of the OID. Column handlers check
// type, length and value in RESERVE1, store in RESERVE2 and put the column back in FREE; they
// accept values only while the row is being created. Row-status handlers create the row in RESERVE1
// and do the work in ACTION: there a copy's name is resolved, the system log written out if it is
// to be sent, and the worker forked; a delete is carried out. Agent thread only; nothing else
// touches the file system or blocks.
#ifndef FLASH_WRITE_H
#define FLASH_WRITE_H

#include "flash_agent.h"
#include "flash_export.h"

FLASH_API WriteMethod set_orvexFlashCopyCommand;
FLASH_API WriteMethod set_orvexFlashCopyProtocol;
FLASH_API WriteMethod set_orvexFlashCopyServerAddress;
FLASH_API WriteMethod set_orvexFlashCopySourceName;
FLASH_API WriteMethod set_orvexFlashCopyDestinationName;
FLASH_API WriteMethod set_orvexFlashCopyRemoteUserName;
FLASH_API WriteMethod set_orvexFlashCopyPassword;
FLASH_API WriteMethod set_orvexFlashCopyNotifyOnCompletion;
FLASH_API WriteMethod set_orvexFlashCopyEntryStatus;

FLASH_API WriteMethod set_orvexFlashMiscOpCommand;
FLASH_API WriteMethod set_orvexFlashMiscOpDestinationName;
FLASH_API WriteMethod set_orvexFlashMiscOpNotifyOnCompletion;
FLASH_API WriteMethod set_orvexFlashMiscOpEntryStatus;

#endif
