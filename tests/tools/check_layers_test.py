#!/usr/bin/env python3
import sys
import unittest

from project import TOOLS, Project

sys.path.insert(0, str(TOOLS))
import check_layers  # noqa: E402

INSTALL = "set(TARN_MODULE_HEADERS\n  net/netip.h net/netip_types.h client/client_types.h client/client.h)\n"


class CheckLayers(unittest.TestCase):
    def faults(self, files):
        """Without the lines about listed headers that this small project does not have."""
        made = Project({"cmake/install.cmake": INSTALL, **files})
        return [
            line
            for line in made.run("check_layers.py")[1]
            if not line.endswith(("is listed but does not exist", "any more"))
        ]

    def test_downward_to_a_header_for_others(self):
        self.assertEqual(
            self.faults({"src/net/netip.h": "", "src/client/a.cpp": '#include "../net/netip.h"\n'}), []
        )

    def test_upward(self):
        self.assertEqual(
            self.faults({"src/client/client.h": "", "src/net/a.cpp": '#include "../client/client.h"\n'}),
            ["src/net/a.cpp:1: client/ is above net/, and client/client.h is no listed exception"],
        )

    def test_upward_by_one_layer(self):
        self.assertEqual(
            self.faults({"src/net/netip.h": "", "src/codec/a.cpp": '#include "../net/netip.h"\n'}),
            ["src/codec/a.cpp:1: net/ is above codec/, and net/netip.h is no listed exception"],
        )

    def test_upward_by_exception(self):
        self.assertEqual(
            self.faults({"src/sub/sub.hpp": "", "src/persist/a.cpp": '#include "../sub/sub.hpp"\n'}), []
        )

    def test_a_private_header_from_outside(self):
        self.assertEqual(
            self.faults({"src/net/net_internal.h": "", "src/client/a.cpp": '\n#include "../net/net_internal.h"\n'}),
            ["src/client/a.cpp:2: net/net_internal.h is private to net/"],
        )

    def test_a_private_header_from_inside(self):
        self.assertEqual(
            self.faults({"src/net/net_internal.h": "", "src/net/a.cpp": '#include "net_internal.h"\n'}), []
        )

    def test_a_header_for_others_takes_types_only(self):
        files = {"src/net/netip.h": "", "src/net/netip_types.h": ""}
        self.assertEqual(self.faults({**files, "src/client/client.h": '#include "../net/netip_types.h"\n'}), [])
        self.assertEqual(
            self.faults({**files, "src/client/client.h": '#include "../net/netip.h"\n'}),
            ["src/client/client.h:1: a header for other modules takes only types of net/, not net/netip.h"],
        )

    def test_a_face_and_what_it_includes_of_its_module(self):
        face = {"src/sub/sub.hpp": '#include "match_list.h"\n', "src/sub/match_list.h": "", "src/sub/sub_internal.h": ""}
        lines = '#include "../sub/sub.hpp"\n#include "../sub/match_list.h"\n'
        self.assertEqual(self.faults({**face, "src/handler/a.cpp": lines}), [])
        self.assertEqual(
            self.faults({**face, "src/sub/sub.hpp": "", "src/handler/a.cpp": lines}),
            ["src/handler/a.cpp:2: sub/match_list.h is private to sub/"],
        )

    def test_the_face_of_a_folder(self):
        face = {"src/codec/standard/standard_codec.hpp": '#include "types.h"\n', "src/codec/standard/types.h": ""}
        lines = '#include "../codec/standard/standard_codec.hpp"\n#include "../codec/standard/types.h"\n'
        self.assertEqual(self.faults({**face, "src/handler/a.cpp": lines}), [])
        private = {**face, "src/codec/standard/reader.h": '#include "../codec_internal.h"\n', "src/codec/codec_internal.h": ""}
        self.assertEqual(self.faults({**private, "src/codec/standard/a.cpp": '#include "reader.h"\n'}), [])
        for source, line in (
            ("src/handler/a.cpp", '#include "../codec/standard/reader.h"\n'),
            ("src/codec/a.cpp", '#include "standard/reader.h"\n'),
        ):
            self.assertEqual(
                self.faults({**private, source: line}),
                [f"{source}:1: codec/standard/reader.h is private to codec/standard/"],
            )

    def test_files_in_folders_of_a_module_are_checked(self):
        self.assertEqual(
            self.faults({"src/client/client.h": "", "src/net/tcp/a.cpp": '#include "../../client/client.h"\n'}),
            ["src/net/tcp/a.cpp:1: client/ is above net/, and client/client.h is no listed exception"],
        )

    def test_a_face_takes_types_only(self):
        files = {"src/client/client.h": "", "src/qos/qos.hpp": '#include "../client/client.h"\n'}
        self.assertEqual(
            self.faults(files),
            ["src/qos/qos.hpp:1: a header for other modules takes only types of client/, not client/client.h"],
        )

    def calls(self, files):
        """Of a sub/ whose header and shell have sub_add."""
        header = "/* as sub_add( */\nint  sub_add(const char *id,\n    int qos);\nTARN_LAYOUT_SIZE(int, 4);\n"
        return self.faults(
            {
                "cmake/install.cmake": "set(TARN_MODULE_HEADERS\n  client/client.h net/netip.h sub/sub.h)\n",
                "src/sub/sub.h": header,
                "src/sub/sub_c.cpp": "int sub_add(const char *id, int qos)\n{\n    return 0;\n}\n",
                **files,
            }
        )

    def test_an_exported_function_called_by_another_module(self):
        self.assertEqual(
            self.calls({"src/handler/a.cpp": "void f()\n{\n    (void)sub_add(id, 1);\n}\n"}),
            ["src/handler/a.cpp:3: sub_add is for hosts; the library has sub/sub.hpp"],
        )

    def test_an_exported_function_passed_on_or_called_by_its_own_module(self):
        self.assertEqual(
            self.calls({"src/api/a.cpp": "each(sub_add);\n", "src/sub/table.cpp": "/* one\n*/ sub_add(id, 1);\n"}),
            [
                "src/api/a.cpp:1: sub_add is for hosts; the library has sub/sub.hpp",
                "src/sub/table.cpp:2: sub_add is for hosts; the library has sub/sub.hpp",
            ],
        )

    def test_the_face_and_log_lines_and_comments_may_have_its_name(self):
        lines = 'sub::add(id, 1); // not sub_add(\nLOG_DEBUG("sub_add(\\"%s\\")", id);\nsub_add_all(id);\n'
        self.assertEqual(self.calls({"src/handler/a.cpp": lines}), [])

    def test_the_shell_of_a_module_may_stand_above_it(self):
        header = {"src/stats/stats.hpp": "", "src/stats/mqtt_stats.h": "void mqtt_stats_print(void);\n"}
        install = INSTALL.replace("net/netip.h ", "net/netip.h stats/mqtt_stats.h ")
        print_it = "mqtt_stats_print();\n"
        made = Project(
            {"cmake/install.cmake": install, **header, "src/api/stats_c.cpp": print_it, "src/api/a.cpp": print_it}
        )
        said = [line for line in made.run("check_layers.py")[1] if "for hosts" in line]
        self.assertEqual(said, ["src/api/a.cpp:1: mqtt_stats_print is for hosts; the library has stats/stats.hpp"])

    def test_an_exported_function_of_a_module_without_a_face(self):
        install = INSTALL.replace("net/netip.h ", "net/netip.h tls/tls_psk.h ")
        files = {"src/tls/tls_psk.h": "void tls_psk_destroy(int c);\n", "src/net/a.cpp": "tls_psk_destroy(c);\n"}
        made = Project({"cmake/install.cmake": install, **files})
        self.assertEqual([line for line in made.run("check_layers.py")[1] if "for hosts" in line], [])

    def test_an_exported_function_that_is_a_callback(self):
        files = {"src/client/client.h": "int on_netip_send_ready(int h);\nint client_send(int c);\n"}
        self.assertEqual(
            self.calls({**files, "src/client/a.cpp": "each(on_netip_send_ready);\neach(client_send);\n"}),
            ["src/client/a.cpp:2: client_send is for hosts; the library has client/client.hpp"],
        )

    def test_everybody_may_use_base(self):
        self.assertEqual(
            self.faults({"src/base/clock.h": "", "src/net/netip.h": '#include "../base/clock.h"\n'}), []
        )

    def test_the_public_header_belongs_to_the_top(self):
        self.assertEqual(self.faults({"src/api/a.cpp": "#include <tarn_sdk_mqtt_broker.h>\n"}), [])
        self.assertEqual(len(self.faults({"src/net/a.cpp": "#include <tarn_sdk_mqtt_broker.h>\n"})), 1)

    def test_a_module_without_a_layer(self):
        self.assertEqual(self.faults({"src/extra/a.cpp": ""}), ["src/extra/a.cpp: extra/ is in no layer"])

    def test_the_program_stays_outside(self):
        self.assertEqual(
            self.faults({"src/net/net_internal.h": "", "broker/main.cpp": '#include "../src/net/net_internal.h"\n'}),
            ["broker/main.cpp:1: tarn-broker lives on the installed headers alone, not net/net_internal.h"],
        )
        self.assertEqual(
            self.faults({"broker/view/top.cpp": "#include <tarn_sdk_mqtt_broker/log/log.h>\n"}),
            ["broker/view/top.cpp:1: tarn-broker lives on the installed headers alone, not log/log.h"],
        )

    def test_the_program_takes_installed_headers_and_its_own(self):
        lines = "#include <tarn_sdk_mqtt_broker/net/netip.h>\n#include \"../loop.h\"\n"
        self.assertEqual(self.faults({"src/net/netip.h": "", "broker/loop.h": "", "broker/view/top.cpp": lines}), [])

    def test_an_exception_that_nobody_uses_is_reported(self):
        made = Project({"cmake/install.cmake": INSTALL, "src/persist/a.cpp": ""})
        self.assertIn(
            "tools/check_layers.py: nothing in persist/ includes sub/sub.hpp any more",
            made.run("check_layers.py")[1],
        )

    def test_a_listed_header_that_is_gone_is_reported(self):
        made = Project({"cmake/install.cmake": INSTALL, "src/net/netip.h": ""})
        lines = made.run("check_layers.py")[1]
        self.assertIn("client/client.h is listed but does not exist", lines)
        self.assertNotIn("net/netip.h is listed but does not exist", lines)

    def test_every_exception_goes_up(self):
        for module, header in check_layers.UPWARD:
            layers = check_layers.LAYERS
            self.assertGreater(layers.index(header.split("/")[0]), layers.index(module))


if __name__ == "__main__":
    unittest.main()
