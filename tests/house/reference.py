"""Builds the reference of the libraries below a folder, and holds every public operation to what it has to say of
itself: reference.py FOLDER. Nothing is without a comment. Each operation says which errors it raises and what threads
may do with it, or its class or its file says so for all."""
import pathlib
import re
import shutil
import sys
import xml.etree.ElementTree as ElementTree

from sources import ROOT, run

# An error by its class or its number, or that there is none, or where else it is said.
ERRORS = re.compile(r"\b\w*(?:Error|Exception)\b|\bstd::(?:bad_alloc|invalid_argument)\b|\berrno\b|\bE[A-Z0-9]{2,}\b|"
                    r"[Rr]aises? (?:nothing|what|as)|[Tt]hrows? (?:nothing|what)|\b[Nn]ever throws?\b|"
                    r"\bno operation throws\b|"
                    r"[Ee]rrors? (?:is|are|of|as)\b|\berror number\b|\b[Ff]ails? as\b|"
                    r"\b(?:[Ss]ee|[Aa]s) [\w:]+\(\)|standard error|"
                    r"\bends the (?:program|process)\b|[Ww]hat it throws")
# Of the flat layer, the result tells.
RESULTS = re.compile(r"\b(?:0|-1|1|[Nn]ull|[Ff]alse|errno)\b|\bfail")
THREADS = re.compile(r"\bthreads?\b|\b[Pp]lain (?:value|record|data)\b|\bsmall value\b|\bprocess-wide\b", re.IGNORECASE)


def text(element):
    """What stands in the descriptions of an element itself, not in those of its members."""
    parts = [part for name in ("briefdescription", "detaileddescription", "inbodydescription")
             for part in element.findall(name)]
    return " ".join("".join(part.itertext()) for part in parts)


class Reference:
    def __init__(self, folder):
        self.compounds = {}
        self.members = {}  # by id, each once: with the compound that it is of, and not the group
        for path in sorted(folder.glob("*.xml")):
            for compound in ElementTree.parse(path).getroot().findall("compounddef"):
                self.compounds[compound.get("id")] = compound
        self.classes = [compound for compound in self.compounds.values() if compound.get("kind") in ("class", "struct")]
        self.files = {compound.find("location").get("file"): compound for compound in self.compounds.values()
                      if compound.get("kind") == "file"}
        # A header of the flat layer is a group.
        self.header_groups = {member.get("id"): compound for compound in self.compounds.values()
                              if compound.findtext("compoundname").startswith("kesos_")
                              for member in compound.iter("memberdef")}
        for kinds in (("class", "struct"), ("namespace", "file"), ("group",)):
            for compound in self.compounds.values():
                for member in compound.iter("memberdef") if compound.get("kind") in kinds else ():
                    self.members.setdefault(member.get("id"), (member, compound))

    def file_of(self, element):
        return self.files[element.find("location").get("file")]

    def classes_behind(self, compound):
        """A class, those that it stands in, and those that it is derived from, Raisable<Derived, Base> included."""
        name = compound.findtext("compoundname")
        bases = {word for base in compound.findall("basecompoundref") for word in re.findall(r"[\w:]+", base.text)}
        for other in self.classes:
            other_name = other.findtext("compoundname")
            if (name + "::").startswith(other_name + "::"):
                yield other
            elif any(("::" + other_name).endswith("::" + base) for base in bases):
                yield from self.classes_behind(other)

    def said_of(self, member, compound):
        """All texts that speak of a member: its own, those of its classes, and that of its file."""
        yield text(member)
        if compound.get("kind") in ("class", "struct"):
            yield from map(text, self.classes_behind(compound))
        yield text(self.file_of(member))
        yield text(self.header_groups.get(member.get("id"), self.file_of(member)))
        for base in member.findall("reimplements"):
            if base.get("refid") in self.members:
                yield from self.said_of(*self.members[base.get("refid")])

    def operations(self):
        for member, compound in self.members.values():
            if member.get("kind") == "function" and member.get("prot") == "public" and not says_all(member):
                yield member, compound


def says_all(member):
    """Whether the declaration of a function says all: what the compiler writes, and what works on values alone, as a
    constexpr function or a comparison. What writes to a stream raises what the stream raises, and is for whoever may
    use the stream."""
    name, arguments = member.findtext("name", ""), member.findtext("argsstring", "").replace(" ", "")
    return (arguments.endswith(("=default", "=delete")) or "constexpr" in member.findtext("type", "")
            or name == "operator<<" or (re.match(r"operator\W", name) is not None and "noexcept" in arguments))


def raises_nothing(member):
    return "noexcept" in member.findtext("argsstring", "") or member.findtext("name", "").startswith("~")


def lacks(reference, member, compound):
    said = list(reference.said_of(member, compound))
    header = member.find("location").get("file")
    errors = [ERRORS, RESULTS] if "kesos/" in header or header.endswith("capture.h") else [ERRORS]
    if not raises_nothing(member) and not any(word.search(one) for word in errors for one in said):
        yield "which errors it raises, or that it raises nothing"
    if not any(THREADS.search(one) for one in said):
        yield "what threads may do with it"


def promises(folder):
    reference = Reference(folder)
    for compound in reference.classes:
        if compound.get("prot") == "public" and not text(compound).strip():
            yield f"{compound.find('location').get('file')}: {compound.findtext('compoundname')}: has no comment"
    for member, compound in reference.operations():
        place = member.find("location")
        name = member.findtext("qualifiedname") or member.findtext("name")
        for what in lacks(reference, member, compound):
            yield f"{place.get('file')}:{place.get('line')}: {name}: does not say {what}"


def main(output):
    if shutil.which("doxygen") is None:
        print("Skipped\nDoxygen is not installed")
        return 0
    built = run(sys.executable, "-B", ROOT / "docs/reference/build.py", output)
    complaints = (built.stdout + built.stderr).splitlines()
    if built.returncode == 0:
        complaints += promises(output / "xml")
    print(*complaints, sep="\n")
    return 1 if complaints or built.returncode != 0 else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
