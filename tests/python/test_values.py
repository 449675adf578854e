"""Values of every registered value type through the module: text and
attribute-log round trips, keyword construction, order and hash; the
registry as Python sees it."""

import os
import subprocess

import pytest

import routinglib as rl

VALUE_KINDS = ("value", "enumeration", "external")
VALUE_TYPES = [t for t in rl.types() if t.kind in VALUE_KINDS]


def test_the_registry_lists_every_kind_of_type():
    kinds = {t.kind for t in rl.types()}
    assert {"primitive", "enumeration", "value", "entity"} <= kinds
    assert len(VALUE_TYPES) > 50
    assert [t.name for t in rl.types("UcmpRebase")] == sorted(
        [t.name for t in rl.types("UcmpRebase")], key=[t.name for t in rl.types()].index)
    assert all("UcmpRebase" in t.name for t in rl.types("UcmpRebase"))
    with pytest.raises(KeyError):
        rl.type("No::SuchType")


@pytest.mark.parametrize("name", ["RoutingLib::Ucmp::UcmpConfig", "Memtab::Fib::FecId",
                                  "Memtab::Fib::AdjType", "RoutingLib::UcmpRebaseTestInput"])
def test_describe_is_what_the_tool_prints(name):
    tool = os.path.join(os.environ["ROUTINGLIB_BIN"], "routinglib")
    printed = subprocess.run([tool, "types", "--describe", name], check=True,
                             capture_output=True, text=True).stdout
    assert rl.type(name).describe() == printed


def test_members_carry_kinds_types_and_schema_declarations():
    t = rl.type("RoutingLib::Ucmp::UcmpConfig")
    m = t.member("maxUcmp")
    assert (m.kind, m.index, m.type.name, m.settable) == ("attribute", 259, "U32", True)
    assert m.__doc__.startswith("maxUcmp: U32 = 4294967295 @Ucmp.cog:")
    assert t.member("maxUcmpInvalid").kind == "constant"
    d = rl.type("RoutingLib::Ucmp::VrfUcmpConfigDir").member("vrfConfig")
    assert (d.kind, d.key_type.name, d.type.name) == ("collection", "Cog::Name", "RoutingLib::Ucmp::UcmpConfig")
    f = rl.type("RoutingLib::UcmpWeightsTestHelper").member("rebaseWeightsTest")
    assert [(n, pt.name) for n, pt in f.params] == [("input", "RoutingLib::UcmpRebaseTestInput")]
    assert rl.type("Memtab::Fib::AdjType").enumerators["nextHopGroupAdj"] == 3


def stored(t):
    return [m.name for m in t.members if m.kind in ("attribute", "param", "collection")]


@pytest.mark.parametrize("t", VALUE_TYPES, ids=[t.name for t in VALUE_TYPES])
def test_every_value_type_round_trips(t):
    samples = t.samples()
    assert samples, t.name
    assert samples[0] == t(), "the default comes first"
    for s in samples:
        assert s.type == t
        if t.has_text_form:
            back = t.parse(repr(s))
            assert back == s and hash(back) == hash(s) and repr(back) == repr(s)
        if t.has_attrlog_form:
            data = s.to_attrlog()
            assert t.from_attrlog(data) == s
            if data:
                with pytest.raises(ValueError):
                    t.from_attrlog(data + b"\0")
        if t.kind == "value":
            attrs = s.attributes()
            assert sorted(attrs) == sorted(stored(t))
            assert t(**attrs) == s
            assert s.replace() == s
            for name, v in attrs.items():
                assert getattr(s, name) == v
    for a in samples:
        for b in samples:
            assert not (a < b and b < a)
            if a == b:
                assert hash(a) == hash(b) and not a < b
            else:
                assert a < b or b < a, (repr(a), repr(b))


def test_keyword_construction_attributes_and_order():
    mp = rl.type("Routing::MetricPref")
    v = mp(metric=3, preference=1)
    assert (v.metric, v.preference) == (3, 1)
    assert isinstance(v.metric, rl.Value) and v.metric.type.name == "Routing::RouteMetric"
    assert repr(v) == "Value('Routing::MetricPref', ** {'metric': 3, 'preference': 1})"
    assert rl.parse("Routing::MetricPref", repr(v)) == v
    assert v.replace(metric=2) < v
    assert not mp() and mp().is_default() and v
    assert {v: 1}[mp(metric=3, preference=1)] == 1
    with pytest.raises(TypeError):
        mp(colour=1)
    with pytest.raises(AttributeError):
        v.colour


def test_strings_are_text_forms_or_the_content_of_quoted_ones():
    p = rl.type("Velnet::IpGenPrefix")("10.1.0.0/16")
    assert repr(p) == "10.1.0.0/16" and p == "10.1.0.0/16"
    assert rl.type("L3::VrfName")("red") == "red"
    assert repr(rl.type("L3::VrfName")("red")) == "'red'"
    with pytest.raises(rl.ParseError):
        rl.type("Velnet::IpGenPrefix")("10.1.0.0/")
    with pytest.raises(rl.RangeError, match="^prefix length 99 is out of range \\(max 32\\)$"):
        rl.type("Velnet::IpGenPrefix")("10.1.0.0/99")


def test_nested_values_and_strings_parse_by_the_attribute_type():
    fec = rl.type("Memtab::Fib::FecId")(0x0300000000000005)
    assert fec.value == 0x0300000000000005
    assert str(fec.adjType()) == "nextHopGroupAdj"
    assert fec.adjIndex() == 5
    assert fec.call("isValid") is True
    assert rl.type("Memtab::Fib::FecId").nexthopGroupIdToFecId(5) == fec
    assert rl.type("Memtab::Fib::TableId").globalTable == 65535


def test_test_helpers_call_the_rebase_by_reflection():
    inp = rl.type("RoutingLib::UcmpRebaseTestInput")(inWeight={0: 3, 2: 1}, maxUcmp=4,
                                                     weightDeviation=0.0)
    assert inp.inWeight == {0: 3, 2: 1}
    result = rl.type("RoutingLib::UcmpWeightsTestHelper")().rebaseWeightsTest(inp)
    status, weights = rl.rebase_weights([3, 0], 4, 0.0)
    assert str(result.status) == status
    assert [result.outWeight[i] for i in range(len(result.outWeight))] == weights
    fin = rl.type("RoutingLib::UcmpFloatRebaseTestInput")(inWeight={0: 1.5, 1: 0.5}, maxUcmp=8,
                                                          weightDeviation=0.1)
    r = rl.type("RoutingLib::UcmpFloatWeightsTestHelper")().rebaseFloatWeightsTest(fin)
    assert str(r.status) == rl.rebase_weights([1.5, 0.5], 8, 0.1)[0]


def test_rebase_weights():
    status, weights = rl.rebase_weights([1, 1, 2], 64, 0.05)
    assert status == "rebaseSuccess"
    assert weights[2] == 2 * weights[0] and weights[0] == weights[1]
    assert sum(weights) <= 64
    assert rl.rebase_weights([5], 0, 0.0) == ("rebaseTruncated", [0])


@pytest.mark.parametrize("weights,deviation", [([], 0.0), ([0, 0], 0.0), ([1, -1], 0.0),
                                               ([1], 1.5), ([1], -0.1), ([1], float("nan"))])
def test_rebase_preconditions_are_range_errors_not_aborts(weights, deviation):
    with pytest.raises(rl.RangeError):
        rl.rebase_weights(weights, 8, deviation)
    helper = rl.type("RoutingLib::UcmpFloatWeightsTestHelper")()
    inp = {"inWeight": dict(enumerate(weights)), "maxUcmp": 8, "weightDeviation": deviation}
    with pytest.raises(rl.RangeError):
        helper.rebaseFloatWeightsTest(inp)


def test_fec_id_decoding():
    d = rl.decode_fec_id(0x0300000000000005)
    assert d["fecId"] == 0x0300000000000005 and d["valid"] is True
    assert (d["adjType"], d["adjIndex"]) == ("nextHopGroupAdj", 5)
    assert rl.decode_fec_id(0)["valid"] is False
    nhg = rl.decode_fec_id("NexthopGroup5")
    assert nhg["intfId"] == "NexthopGroup5" and nhg["fecId"] != 0
    with pytest.raises(ValueError):
        rl.decode_fec_id(1 << 64)
