#!/usr/bin/env python3
# Checks the layout and metadata of a vexatool AAR:
#   scripts/check-aar.py build-aar/vexatool-1.0.0.aar build-aar/cmake-arm64/include/vexatool.h
import io, json, re, sys, zipfile

MODULE = "prefab/modules/vexatool64/"
LIBS = MODULE + "libs/android.arm64-v8a/"
LAYOUT = {"AndroidManifest.xml", "classes.jar", "proguard.txt", "jni/arm64-v8a/libvexatool64.so",
          "jni/arm64-v8a/libvexatool64_jni.so", "prefab/prefab.json", MODULE + "module.json",
          MODULE + "include/vexatool.h", LIBS + "abi.json", LIBS + "libvexatool64.so"}
CLASSES = ("VexaServer", "VexaServer$Listener", "VexaClient", "VexaClient$Listener", "VexaEvents",
           "VexaException", "EventDispatcher", "Natives", "NativeHandle")

aar_path, header_path = sys.argv[1], sys.argv[2]
version = re.search(r"vexatool-([0-9.]+)\.aar$", aar_path).group(1)
with zipfile.ZipFile(aar_path) as aar:
    files = {name for name in aar.namelist() if not name.endswith("/")}
    problems = ["missing " + name for name in sorted(LAYOUT - files)]
    problems += ["unexpected " + name for name in sorted(files - LAYOUT)]
    if problems:
        sys.exit("\n".join(problems))
    read = aar.read
    for lib in sorted(name for name in LAYOUT if name.endswith(".so")):
        if read(lib)[:4] != b"\x7fELF" or int.from_bytes(read(lib)[18:20], "little") != 183:
            problems.append(lib + " is not an arm64 ELF file")
    metadata = {"prefab/prefab.json": {"schema_version": 2, "name": "vexatool",
                                       "version": version, "dependencies": []},
                MODULE + "module.json": {"export_libraries": [], "library_name": "libvexatool64"},
                LIBS + "abi.json": {"abi": "arm64-v8a", "api": 24, "stl": "none", "static": False}}
    for name, expected in metadata.items():
        found = json.loads(read(name))
        ndk = found.pop("ndk", None) if name.endswith("abi.json") else 0
        if not isinstance(ndk, int) or found != expected:
            problems.append("%s: %s" % (name, found))
    if read(MODULE + "include/vexatool.h") != open(header_path, "rb").read():
        problems.append("the prefab header differs from " + header_path)
    with zipfile.ZipFile(io.BytesIO(read("classes.jar"))) as jar:
        for name in ("org/vexatool/%s.class" % c for c in CLASSES):
            if name not in jar.namelist() or int.from_bytes(jar.read(name)[6:8], "big") != 52:
                problems.append("classes.jar: %s missing or not Java 8 bytecode" % name)
    rules = read("proguard.txt").decode()
    problems += ["proguard.txt keeps nothing of " + kept for kept in
                 ("VexaServer$Listener", "VexaClient$Listener", "EventDispatcher", "native <methods>")
                 if kept not in rules]
    if b'package="org.vexatool"' not in read("AndroidManifest.xml"):
        problems.append("AndroidManifest.xml names no package org.vexatool")
if problems:
    sys.exit("\n".join(problems))
print("AAR check passed: " + aar_path)
