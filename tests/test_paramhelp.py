import pathlib
import re

import pytest

import kaviropy as kp

NAMES = [n for n in dir(kp.KVR.Param) if not n.startswith("_")]
REMOTE = ["ComputeServer", "CSRouter", "CloudAccessID", "CloudSecretKey",
          "CloudPool", "JobID", "WorkerPool", "WorkerPassword", "ServerPassword",
          "CSAuthToken", "CSAPIAccessID", "CSAPISecret", "DistributedMIPJobs", "ConcurrentJobs"]


def help_text(capsys, name):
    capsys.readouterr()
    kp.paramHelp(name)
    return capsys.readouterr().out


def test_every_parameter_has_a_purpose(capsys):
    assert len(NAMES) == 172
    for name in NAMES:
        out = help_text(capsys, name)
        lines = out.splitlines()
        assert lines[0] == "  PARAMETER NAME:" and lines[1] == "    " + name, out
        assert lines[2] == "  TYPE:" and lines[3].strip() in ("Integer", "Double", "String", "Int")
        start = lines.index("  PURPOSE:")
        prose = " ".join(line.strip() for line in lines[start + 1:] if line.strip())
        prose = re.split(r" Note(?: for engine \w+)?:", prose)[0]
        assert all(line.startswith("    ") for line in lines[start + 1:] if line.strip())
        assert "No description" not in prose, name
        assert 2 <= len(re.findall(r"[.!?](?:\s|$)", prose)) <= 4, (name, prose)


def purpose(capsys, name):
    lines = help_text(capsys, name).splitlines()
    return " ".join(line.strip() for line in lines[lines.index("  PURPOSE:") + 1:])


@pytest.mark.parametrize("name", REMOTE)
def test_remote_services_are_refused_as_the_help_says(capsys, name):
    assert "refuses to start an environment" in purpose(capsys, name)
    env = kp.Env(empty=True)
    env.setParam("OutputFlag", 0)
    env.setParam(name, 1 if name.endswith("Jobs") else "somewhere")
    with pytest.raises(kp.KaviroError):
        env.start()
    env.dispose()


def test_tuning_parameters_configure_the_tuner(capsys):
    for name in NAMES:
        if name.startswith("Tune"):
            assert purpose(capsys, name).startswith("Configures the tuner")


def test_name_resolution(capsys):
    out = help_text(capsys, "mipgapabs")
    assert out.splitlines()[1] == "    MIPGapAbs" and "absolute" in out.lower()
    out = help_text(capsys, "MIPGap*")
    assert out.splitlines()[:3] == ["Matching parameters:", "  MIPGap", "  MIPGapAbs"]
    assert help_text(capsys, "NoSuchParam").strip() == "No help found for parameter NoSuchParam"


def test_help_says_which_settings_nothing_acts_on(capsys):
    """A setting is flagged 'not applied' exactly when no part of the library reads it."""
    env = kp.Env(empty=True)
    library = pathlib.Path(__file__).resolve().parents[1] / "src" / "kaviro100"
    sources = "\n".join(p.read_text() for p in library.rglob("*") if p.suffix in (".cpp", ".h")
                        and p.name not in ("applied_params.cpp", "params.h", "highs_params.cpp",
                                           "scip_params.cpp"))
    for name in NAMES:
        flagged = bool(env._getParamInfo(name)[6] & 4)
        read = re.search(r"ParamId::%s\b" % name, sources) is not None
        assert flagged != read, name
        assert ("does not act on this setting" in help_text(capsys, name)) == flagged, name
    assert env._getParamInfo("MIRCuts")[6] & 4 and not env._getParamInfo("TimeLimit")[6] & 4
    env.dispose()
