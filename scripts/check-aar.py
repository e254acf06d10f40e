#!/usr/bin/env python3
# Checks the layout and metadata of a vexatool AAR, and the javadoc and sources
# jars beside it; the license in each archive is the tree's LICENSE:
#   scripts/check-aar.py build-aar/vexatool-1.0.0.aar build-aar/cmake-arm64/include/vexatool.h
import io, json, os, re, sys, zipfile

MODULE = "prefab/modules/vexatool64/"
LIBS = MODULE + "libs/android.arm64-v8a/"
LAYOUT = {"META-INF/LICENSE", "AndroidManifest.xml", "classes.jar", "proguard.txt",
          "jni/arm64-v8a/libvexatool64.so", "jni/arm64-v8a/libvexatool64_jni.so", "prefab/prefab.json", MODULE + "module.json",
          MODULE + "include/vexatool.h", LIBS + "abi.json", LIBS + "libvexatool64.so"}
PUBLIC = ("VexaServer", "VexaServer$Listener", "VexaServer$Event", "VexaClient",
          "VexaClient$Listener", "VexaClient$Event", "VexaEvent", "VexaEvents", "VexaException")
CLASSES = PUBLIC + ("EventDispatcher", "Natives", "NativeHandle")
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
LICENSE = open(os.path.join(ROOT, "LICENSE"), "rb").read()
SOURCES = {"org/vexatool/" + name for name in
           os.listdir(os.path.join(ROOT, "java/src/main/java/org/vexatool"))}


def open_jar(data, label, expected, problems):
    """A jar held in memory and its files; notes missing ones and a missing or other license."""
    jar = zipfile.ZipFile(io.BytesIO(data))
    names = {name for name in jar.namelist() if not name.endswith("/")}
    problems += ["%s: %s is missing" % (label, name) for name in sorted(expected - names)]
    if "META-INF/LICENSE" not in names or jar.read("META-INF/LICENSE") != LICENSE:
        problems.append(label + ": META-INF/LICENSE missing or not the tree's LICENSE")
    return jar, names


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
                LIBS + "abi.json": {"abi": "arm64-v8a", "api": 21, "stl": "none", "static": False}}
    for name, expected in metadata.items():
        found = json.loads(read(name))
        ndk = found.pop("ndk", None) if name.endswith("abi.json") else 0
        if not isinstance(ndk, int) or found != expected:
            problems.append("%s: %s" % (name, found))
    if read(MODULE + "include/vexatool.h") != open(header_path, "rb").read():
        problems.append("the prefab header differs from " + header_path)
    if read("META-INF/LICENSE") != LICENSE:
        problems.append("META-INF/LICENSE is not the tree's LICENSE")
    classes = {"org/vexatool/%s.class" % c for c in CLASSES}
    jar, names = open_jar(read("classes.jar"), "classes.jar", classes, problems)
    problems += ["classes.jar: %s is not Java 8 bytecode" % name for name in sorted(classes & names)
                 if int.from_bytes(jar.read(name)[6:8], "big") != 52]
    # The annotations are for compilers only: nothing of them ships.
    problems += ["classes.jar: unexpected " + name for name in sorted(names)
                 if not name.startswith(("org/vexatool/", "META-INF/"))]
    rules = read("proguard.txt").decode()
    problems += ["proguard.txt keeps nothing of " + kept for kept in
                 ("VexaServer$Listener", "VexaClient$Listener", "EventDispatcher", "native <methods>")
                 if kept not in rules]
    if b'package="org.vexatool"' not in read("AndroidManifest.xml"):
        problems.append("AndroidManifest.xml names no package org.vexatool")
pages = {"index.html"} | {"org/vexatool/%s.html" % c.replace("$", ".") for c in PUBLIC}
for kind, expected in (("javadoc", pages), ("sources", SOURCES)):
    path = aar_path[:-len(".aar")] + "-%s.jar" % kind
    if not os.path.exists(path):
        problems.append("missing " + path)
        continue
    with open(path, "rb") as jar_file:
        open_jar(jar_file.read(), os.path.basename(path), expected, problems)
if problems:
    sys.exit("\n".join(problems))
print("AAR check passed: " + aar_path + " and its javadoc and sources jars")
