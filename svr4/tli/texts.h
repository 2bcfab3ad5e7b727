// SPDX-License-Identifier: BSD-2-Clause
// The texts of the error codes.
#ifndef SVR4_TLI_TEXTS_H
#define SVR4_TLI_TEXTS_H

// clang-format off
/// Hands each text to the macro `X`, in the order of the codes, from 0 on.
#define SVR4_TLI_TEXTS(X)                                                          \
    X("No Error")                                                                  \
    X("Incorrect address format")                                                  \
    X("Incorrect options format")                                                  \
    X("Illegal permissions")                                                       \
    X("Illegal file descriptor")                                                   \
    X("Couldn't allocate address")                                                 \
    X("Routine will place interface out of state")                                 \
    X("Illegal called/calling sequence number")                                    \
    X("System error")                                                              \
    X("An event requires attention")                                               \
    X("Illegal amount of data")                                                    \
    X("Buffer not large enough")                                                   \
    X("Can't send message - (blocked)")                                            \
    X("No message currently available")                                            \
    X("Disconnect message not found")                                              \
    X("Unitdata error message not found")                                          \
    X("Incorrect flags specified")                                                 \
    X("Orderly release message not found")                                         \
    X("Primitive not supported by provider")                                       \
    X("State is in process of changing")                                           \
    X("Unsupported structure type requested")                                      \
    X("Invalid transport provider name")                                           \
    X("Listener queue length limit is zero")                                       \
    X("Transport address is in use")                                               \
    X("Outstanding connection indications exist")                                  \
    X("Listener-acceptor transport provider mismatch")                             \
    X("Connection acceptor has listen queue length limit greater than zero")       \
    X("Connection acceptor-listener addresses not same but required by transport") \
    X("Incoming connection queue is full")                                         \
    X("Protocol error on transport primitive")
// clang-format on

#endif
