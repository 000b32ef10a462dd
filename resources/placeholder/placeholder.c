/* Tarnlift's placeholder for boot image record 143: what a PC with x86-64
 * UEFI firmware receives over PXE when nobody has supplied the router
 * system's real boot image. Instead of a silent failure it tells the person
 * at the console what is missing and where to put it, waits a few seconds
 * and hands control back to the firmware (which then tries its next boot
 * option). It uses nothing but the firmware's console and its timer. */
#include "efi_types.h"

/* Found by `tarnlift bootimage list` to tell the placeholder from a real
 * image; kept in the file even though nothing here reads it. */
__attribute__((used)) static const char kMarker[] = "TARNLIFT PLACEHOLDER BOOT IMAGE 143";

#define PAUSE_SECONDS 8

static const CHAR16 kTitle[] = L"\r\nTarnlift placeholder boot image (record 143)\r\n";
static const CHAR16 kText[] =
    L"This PC was network-booted by Tarnlift, but Tarnlift carries only this\r\n"
    L"placeholder instead of the router system's boot image for x86-64 UEFI.\r\n"
    L"The real boot image of the router system must be supplied as record 143:\r\n"
    L"  tarnlift bootimage wrap 143 KERNEL FOLDER\r\n"
    L"where FOLDER is one the server searches:\r\n"
    L"  - the folder given with --boot-images DIR,\r\n"
    L"  - the per-user folder: ~/.local/share/tarnlift/bootimages on Linux,\r\n"
    L"    %LOCALAPPDATA%\\Tarnlift\\bootimages on Windows,\r\n"
    L"  - the system folder: /usr/share/tarnlift/bootimages on Linux,\r\n"
    L"    the bootimages folder beside tarnlift.exe on Windows.\r\n"
    L"`tarnlift bootimage list` shows which records the server finds, and where.\r\n";
static const CHAR16 kBack[] = L"Returning to the firmware in a few seconds.\r\n";

static void show(EFI_SIMPLE_TEXT_OUTPUT_PROTOCOL *out, UINTN attribute, const CHAR16 *text) {
  if (out == 0) return;
  if (out->SetAttribute != 0) out->SetAttribute(out, attribute);
  out->OutputString(out, text);
}

/* The message, line groups with their colours. A table of pointers also
 * gives the image relocations to apply, so the linker emits the relocation
 * section that lets the firmware load it at any address. */
static const struct {
  UINTN attribute;
  const CHAR16 *text;
} kMessage[] = {{EFI_YELLOW, kTitle}, {EFI_WHITE, kText}, {EFI_LIGHTGRAY, kBack}};

EFI_STATUS efi_main(EFI_HANDLE image, EFI_SYSTEM_TABLE *system) {
  (void)image;
  for (unsigned i = 0; i < sizeof kMessage / sizeof kMessage[0]; ++i) {
    show(system->ConOut, kMessage[i].attribute, kMessage[i].text);
  }
  EFI_BOOT_SERVICES *boot = system->BootServices;
  /* One second at a time, so that a slow firmware timer cannot make one
   * long stall overrun the watchdog. */
  for (int second = 0; second < PAUSE_SECONDS; ++second) boot->Stall(1000000);
  return EFI_SUCCESS;
}
