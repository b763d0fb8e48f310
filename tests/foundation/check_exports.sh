#!/bin/sh
# Fails when the engine library exports anything beyond the public interface: the engine's
# accessor, the recording repair (TavoRecordingRepair.h), the version (TavoMBBMSVersion.h),
# the play-engine status functions (TavoMBBMSEngineStatus.h) and the vague-linkage data
# (vtables, type information) of the exported classes.
set -eu
nm_tool="$1"
library="$2"
unexpected=$("$nm_tool" -D --defined-only "$library" | awk '{print $3}' | c++filt |
    grep -v -E '^(TavoMBBMSEngine::getInstance\(\)|tavo_repair_recording|tavo_mbbms_version|tavo_mbbms_playengine_connected|tavo_mbbms_playengine_holds_buffer|(vtable|typeinfo|typeinfo name) for (TavoMBBMSEngine|TavoMBBMSEngineCallback|MBBMSAgentCallback|MBBMSAgent))$' |
    grep -v -E '^(_init|_fini|_edata|_end|__bss_start)$' || true)
if [ -n "$unexpected" ]; then
    echo "unexpected exported symbols:"
    echo "$unexpected"
    exit 1
fi
"$nm_tool" -D --defined-only "$library" | c++filt | grep -q 'TavoMBBMSEngine::getInstance()' ||
    { echo "getInstance is not exported"; exit 1; }
"$nm_tool" -D --defined-only "$library" | grep -q ' T tavo_repair_recording$' ||
    { echo "tavo_repair_recording is not exported"; exit 1; }
"$nm_tool" -D --defined-only "$library" | grep -q ' T tavo_mbbms_version$' ||
    { echo "tavo_mbbms_version is not exported"; exit 1; }
for status in tavo_mbbms_playengine_connected tavo_mbbms_playengine_holds_buffer; do
    "$nm_tool" -D --defined-only "$library" | grep -q " T $status\$" ||
        { echo "$status is not exported"; exit 1; }
done
echo "exports: OK"
