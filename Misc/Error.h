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
        NOTICE,           // recorded, counted, printed
        NOTICE_WITH_LOG,  // logged too, with severity letter I
        WARNING,          // as NOTICE
        WARNING_WITH_LOG, // logged too, with severity letter W
        PANIC             // logged too, with severity letter F; then the process aborts
    };

    /// What went wrong. The numbers appear in logs and are results of the messaging operations: they never change.
    enum ErrorType {
        NO_ERRORS = 0,
        OUT_OF_MEMORY = 10,
        OPENING_FILE,
        reserved01,
        LINKING_FILE,
        UNLINKING_FILE,
        READING_FROM_FILE,
        WRITING_TO_FILE,
        OPENING_PIPE,
        reserved02,
        READING_FROM_PIPE,
        OTHER,
        PROCESSING_THRESHOLDS,
        INVALID_DATA,
        reserved03,
        reserved04,
        reserved05,
        INVALID_TRANSITION,
        INVALID_STATE,
        INVALID_FAULT_ID,
        INVALID_REC_ID,
        reserved06,
        KDHA_NOT_FOUND,
        NO_SSSINDEX_FILE,
        reserved07,
        NO_SSSBASE_FILE,
        SSS_VERSION_INVALID,
        NO_NEW_SSSINDEX_FILE,
        NO_NEW_SSSBASE_FILE,
        SSS_PIECE_NOT_FOUND,
        reserved08,
        reserved09,
        reserved10,
        reserved11,
        reserved12,
        PERMISSION_DENIED,
        OPTION_NOT_FOUND,
        reserved13,
        UNSUPPORTED_FEATURE,
        IPC_BAD_RESPONSE_EVENT,
        RRList_ALREADY_EXISTS,
        TERMINATION_QUEUED,
        INVALID_SFR_COMMAND,
        RRTmpl_VAR_MISMATCH,
        INSUFF_USRFUNCS_ARGS,
        FORK_FAILED,
        EXEC_FAILED,
        ITEM_DOES_NOT_EXIST,
        MKDIR_FAILED,
        FEATURE_DOES_NOT_WORK,
        CLIPS_ERRORS,
        IPC_ERROR,
        IPC_QUEUE_TOO_SMALL,
        TCP_ERROR,
        INVALID_SFR_FILE,
        INVALID_SSS_FILE,
        SERVER_GONE,
        IPC_CONNECTION_LOST,
        IPC_SEND_PROCESS_GONE,
        IPC_RECV_PROCESS_GONE,
        IPC_RECV_TIME_OUT,
        IPC_SEND_TIME_OUT,
        TOO_MANY_FAULTS,
        LOST_SFR,
        NO_RECOMMENDATION,
        OSF_VERSION_MISMATCH,
        WAIT_TIME_EXCEEDED,
        FILE_SYSTEM_FULL,
        BAD_IPC_PARAMETER,
        MODEM_ESCALATE_FAILED,
        PROPAGATION_FAILED,
        PATTERN_LOAD_FAILURE,
        EVENT_REJECTED,
        CUST_INFO_NEEDED,
        STATE_ACTION_FAILED,
        NETWORK_ESCALATE_FAILED,
        FAILED_CREATE_LOCK_FILE,
        PACKAGE_DOWNLOADED,
        KLIB_MOVE_FAILED,
        FILE_DOWNLOADED,
        ALREADY_ESCALATING,
        MONITORING_REENABLED,
        MONITORING_OFF,
        MISCONFIGURATION_NODES
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
