#!/usr/bin/env bash
# The shared library exports the boundary under plain C names, the two hex dumps as ordinary C++
# functions (mangled with their parameter types), and nothing of its internals.
set -euo pipefail
library=$1
symbols=$(nm -D --defined-only "$library" | awk '{print $3}')
missing=0
for name in CreateBuffer VerifyBufferHandle GetHeaderType GetCommandType \
    CreateDiscovery CreatePing CreateStatusCacheRequest CreateHostListEntry CreateRequestScan \
    CreateRequestScanReply CreateIPConfig ParseHCPResponse ParsePingResponse \
    ParseRequestScanResponse ParseHostListEntryResponse ParseStatusCacheResponse ParseRequestScan \
    CreateStatCacheResponse CreateKivNetRecord OpenUDPSocket BindUDPSocket SetSocketOptions SendTo \
    RecvFrom CloseUDPSocket RevitalizeSocket CreateSocketAddress GetAddressPort \
    VerifySockAddressHandle VerifySocketHandle TraceLogBody TraceLogStream mDebugLevel \
    ResolveNewIPAddress QueryMACAddressByHCP InitializeDebugger SendDebugMessage SendDebugPacket \
    StopDebugger GetSocketID GetKivNetworkCommVersion OpenTCPSocket Write WriteManaged Read \
    ReadManaged RegisterReadCallback GetListenerThreadID CloseTCPSocket \
    _Z15DumpHexMessage2Phi _Z15DumpHexMessage3Phi; do
  if ! grep -qx "$name" <<<"$symbols"; then
    echo "not exported: $name"
    missing=1
  fi
done
# Internals stay hidden: the platform seams and their Linux implementations, and the call
# frame's helpers.
if grep -E 'SetHostPlatformOverride|LinuxHostPlatform|frame[0-9]*Guarded|AvahiServiceBrowser|KivAvahiBrowser|FileDeviceStore|gBuffCommand' <<<"$symbols"; then
  echo "internal symbols are exported"
  missing=1
fi
[ $missing -eq 0 ] && echo "exports OK"
