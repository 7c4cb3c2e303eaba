"""Each line that a type checker must refuse has a mark. It is checked, and never run."""

import kelm

kelm.open("disk.vmdk", password=5)  # refused
kelm.create("disk.vmdk", "8M")  # refused
kelm.import_image("image", "disk.vmdk", compresed=True)  # refused
kelm.export_image("disk.vmdk", "image", progress=print)
kelm.check("disk.vmdk", allow_paths=7)  # refused
kelm.compare("disk.vmdk")  # refused
kelm.open("disk.vmdk").write("text")  # refused
kelm.open("disk.vmdk").info.size = 5  # refused
kelm.list_backups(".")[0].pth  # refused
