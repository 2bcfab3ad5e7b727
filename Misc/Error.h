// SPDX-License-Identifier: BSD-2-Clause
// The one channel through which every part of the library reports a failure or a noteworthy event.
#ifndef MISC_ERROR_H
#define MISC_ERROR_H

#include <iostream> // which makes the standard streams usable for the static objects of every including unit

#include "Misc/export.h"

/// Reports failures and noteworthy events. A class that can fail derives from ErrorReporter; a free function uses a
/// local one. A report carries a severity, an error type, a description, the reporting unit's identification and a
/// source line. The last report is kept for the whole class, all reports of the process are counted, and each is
/// printed to standard error; those of the logged severities go to syslog as well, and a PANIC ends the process.
///
/// Reporting never fails toward its caller: stored texts are cut to their fields, a standard error in a failed state
/// suppresses what would be printed, and a log record for which there is no memory is left out. A null text counts
/// as empty, and so does the name of a program that never called ProgInfo::Initialize.
class ZELOO_API ErrorReporter {
public:
    /// What happens with a report. A value that is none of these is recorded, counted and printed, nothing else.
    enum Severity {
        NOTICE,           ///< recorded, counted, printed
        NOTICE_WITH_LOG,  ///< logged too, with severity letter I
        WARNING,          ///< as NOTICE
        WARNING_WITH_LOG, ///< logged too, with severity letter W
        PANIC             ///< logged too, with severity letter F; then the process aborts
    };

    /// What went wrong. The numbers appear in logs and are results of the messaging operations: they never change. The
    /// texts are what GetErrorType gives; docs/errors.md tells of causes and cures.
    enum ErrorType {
        NO_ERRORS = 0,           ///< 0: nothing went wrong
        OUT_OF_MEMORY = 10,      ///< 10: Memory allocation failed.
        OPENING_FILE,            ///< 11: Failed to open a file.
        reserved01,              ///< 12: This error code is reserved
        LINKING_FILE,            ///< 13: System call link() failed.
        UNLINKING_FILE,          ///< 14: System call unlink() failed.
        READING_FROM_FILE,       ///< 15: Failed to read from a file.
        WRITING_TO_FILE,         ///< 16: Failed to write to a file.
        OPENING_PIPE,            ///< 17: Fault to open a pipe.
        reserved02,              ///< 18: This error code is reserved
        READING_FROM_PIPE,       ///< 19: Error occurred while reading from pipe.
        OTHER,                   ///< 20: OTHER
        PROCESSING_THRESHOLDS,   ///< 21: Error occurred while processing thresholds.
        INVALID_DATA,            ///< 22: Invalid data was encountered.
        reserved03,              ///< 23: This error code is reserved
        reserved04,              ///< 24: This error code is reserved
        reserved05,              ///< 25: This error code is reserved
        INVALID_TRANSITION,      ///< 26: An invalid transition was encountered.
        INVALID_STATE,           ///< 27: An invalid state was encountered.
        INVALID_FAULT_ID,        ///< 28: An invalid fault ID was encountered.
        INVALID_REC_ID,          ///< 29: An invalid recommendation ID was encountered.
        reserved06,              ///< 30: This error code is reserved
        KDHA_NOT_FOUND,          ///< 31: The requested SSS is not in the knowledge library.
        NO_SSSINDEX_FILE,        ///< 32: The SSSIndex file does not exist or cannot be opened.
        reserved07,              ///< 33: This error code is reserved
        NO_SSSBASE_FILE,         ///< 34: The SSSBase file does not exist or cannot be opened.
        SSS_VERSION_INVALID,     ///< 35: Version number is not greater than installed version.
        NO_NEW_SSSINDEX_FILE,    ///< 36: A new SSSIndex file could not be created.
        NO_NEW_SSSBASE_FILE,     ///< 37: A new SSSBase file could not be created.
        SSS_PIECE_NOT_FOUND,     ///< 38: The requested data was not found in the SSS.
        reserved08,              ///< 39: This error code is reserved
        reserved09,              ///< 40: This error code is reserved
        reserved10,              ///< 41: This error code is reserved
        reserved11,              ///< 42: This error code is reserved
        reserved12,              ///< 43: This error code is reserved
        PERMISSION_DENIED,       ///< 44: Permission denied.
        OPTION_NOT_FOUND,        ///< 45: An undefined option was read - used default value.
        reserved13,              ///< 46: This error code is reserved
        UNSUPPORTED_FEATURE,     ///< 47: An unsupported feature was encountered.
        IPC_BAD_RESPONSE_EVENT,  ///< 48: Bad ipc response event received.
        RRList_ALREADY_EXISTS,   ///< 49: Recommendation record list already exists.
        TERMINATION_QUEUED,      ///< 50: Server is busy and has queued the termination request.
        INVALID_SFR_COMMAND,     ///< 51: An invalid SFR command was encountered - ignored.
        RRTmpl_VAR_MISMATCH,     ///< 52: Recommendation template variable has no value.
        INSUFF_USRFUNCS_ARGS,    ///< 53: Insufficient number of arguments to a CLIPS user function.
        FORK_FAILED,             ///< 54: System call fork() failed
        EXEC_FAILED,             ///< 55: System call exec() failed
        ITEM_DOES_NOT_EXIST,     ///< 56: Cannot find the data item, it does not exist.
        MKDIR_FAILED,            ///< 57: Cannote create a directory: system call mkdirp failed.
        FEATURE_DOES_NOT_WORK,   ///< 58: This feature does not work properly
        CLIPS_ERRORS,            ///< 59: Errors occurred when running CLIPS
        IPC_ERROR,               ///< 60: An ipc message queue error occurred
        IPC_QUEUE_TOO_SMALL,     ///< 61: The ipc queue max size is too small (MSGMNB).
        TCP_ERROR,               ///< 62: A tcp error occurred
        INVALID_SFR_FILE,        ///< 63: Invalid SFR file
        INVALID_SSS_FILE,        ///< 64: Invalid SSS file
        SERVER_GONE,             ///< 65: server process no longer exists.
        IPC_CONNECTION_LOST,     ///< 66: connection to server has been lost.
        IPC_SEND_PROCESS_GONE,   ///< 67: process to send message to no longer exists.
        IPC_RECV_PROCESS_GONE,   ///< 68: process to receive message from no longer exists.
        IPC_RECV_TIME_OUT,       ///< 69: time out waiting for response.
        IPC_SEND_TIME_OUT,       ///< 70: time out sending message.
        TOO_MANY_FAULTS,         ///< 71: Detected too many faults - new faults are ignored.
        LOST_SFR,                ///< 72: The SFR file for an active fault has been deleted - fault disposed.
        NO_RECOMMENDATION,       ///< 73: This fault currently has no outstanding recommendations.
        OSF_VERSION_MISMATCH,    ///< 74: Fault database created by a different server version.
        WAIT_TIME_EXCEEDED,      ///< 75: Child process run time exceeded max time to run.
        FILE_SYSTEM_FULL,        ///< 76: File System Full.
        BAD_IPC_PARAMETER,       ///< 77: Invalid IPC event parameter received.
        MODEM_ESCALATE_FAILED,   ///< 78: Failed to contact Kelvaro via modem.
        PROPAGATION_FAILED,      ///< 79: Attempt to propagate client package failed.
        PATTERN_LOAD_FAILURE,    ///< 80: Attempt to memory load awk pattern failed.
        EVENT_REJECTED,          ///< 81: request for service was rejected.
        CUST_INFO_NEEDED,        ///< 82: Customer information is needed to contact Kelvaro
        STATE_ACTION_FAILED,     ///< 83: State action unable to be executed
        NETWORK_ESCALATE_FAILED, ///< 84: Failed to contact Kelvaro via network.
        FAILED_CREATE_LOCK_FILE, ///< 85: Failed to lock necessary files.
        PACKAGE_DOWNLOADED,      ///< 86: Received a package from Remote Support
        KLIB_MOVE_FAILED,        ///< 87: Move of KBASE file from install directory failed
        FILE_DOWNLOADED,         ///< 88: Received a file from Remote Support
        ALREADY_ESCALATING,      ///< 89: Already communicating with Brantel Remote Support.
        MONITORING_REENABLED,    ///< 90: Monitoring reenabled.
        MONITORING_OFF,          ///< 91: Monitoring off.
        MISCONFIGURATION_NODES   ///< 92: Receiving fault message from an invalid node
    };
    static_assert(MISCONFIGURATION_NODES == 92, "the numbers of the error types are an external interface");

    /// A reporter that prints its reports. Clears `errno` and the return status of the class; this is intended.
    ErrorReporter();
    virtual ~ErrorReporter();

    /// Reports. `sev` is a Severity, `errorkind` an ErrorType, `moduleid` the identification of the source unit (its
    /// expanded $Id: keyword) and `theLine` the line of the call. Records the report with the current `errno` as its
    /// error code, prints it (see Display) and, for the logged severities, logs it with the whole description and
    /// the error's text (see MakeErrorLogEntry). A PANIC then prints a banner and aborts: there is no return.
    /// `errno` is kept.
    void _ReportError(short const sev, short const errorkind, char const* description, char const* moduleid,
                      long const theLine) const;
    /// The same, with `addition` put behind the description in the log record unless it is null or empty.
    void _ReportErrorExt(short const sev, short const errorkind, char const* description, char const* moduleid,
                         long const theLine, char const* addition) const;
    /// Prints the last report, of whatever object, to standard error, unless this object does not display.
    void Display() const;
    /// Sends one record to syslog (user facility, level info): the pipe-delimited header fields, "#", and the
    /// program's name and long version with `Description`. The header's tag is 410000000 + 10000 * ErrCode + theLine
    /// in 32-bit arithmetic that wraps; its software module is the file name in `ModuleName`, up to 23 characters,
    /// or "Unknown". In the record %% stands for one percent sign and %m for the text of the current `errno`; any
    /// other % stands for itself. There is no limit to the length of a record but the host's. `errno` is kept.
    void MakeErrorLogEntry(short const SeverityLevel, int const ErrCode, char const* Description,
                           char const* ModuleName, long const theLine) const;
    /// Reports made through this object, and its Display, print: so it is at first.
    void DisplayErrorInfo() { DisplayInfo = 1; }
    /// Reports made through this object, and its Display, print nothing. They are recorded, counted and logged all the
    /// same.
    void DoNotDisplayErrorInfo() { DisplayInfo = 0; }

    /// The `errno` of the last report; 0 when there was none.
    static short GetErrorCode();
    /// The message of an ErrorType; "NOT_SPECIFIED" for 0 and for numbers without one.
    static const char* GetErrorType(short type);
    /// The name of a Severity, or "UNRECOGNIZED".
    static const char* GetErrorSeverity(short severity);
    /// The system's text for an `errno` value; valid until the next call.
    static const char* GetErrorDesc(short errcode);
    /// Stores the return status and returns it.
    static short SetReturnStatus(short status);
    /// The severity of the last report, or the status set since.
    static short GetReturnStatus();
    /// Sets `errno` and the error code of the last report to 0; all else stays.
    static void ClearError();
    /// The number of reports since the process started, of every severity.
    static int GetErrorCount();
    /// Writes every error type that has a message, a line each.
    static void dumpErrorCodesOn(std::ostream& os);

private:
    short DisplayInfo; // not 0: reports of this object are printed

    // The last report. The texts are always terminated.
    static short ReturnStatus;
    static int ErrorCount;
    static short ErrType;
    static short ErrorCode;
    static char ModuleName[60];
    static char Description[150];
    static char TimeStamp[25];
    static long Line;
};

#endif
