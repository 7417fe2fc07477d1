/* Finding readers: the scan list and its parameters. */
#include "testing.h"

#include <stdio.h>
#include <string.h>

/* The readers as described in CMakeLists.txt. */
enum { desk, gate, handheld, foreign, fifth_product, without_id, readers };
enum { usable = 3 };
static const char* const ids[usable] = {"A1", "B2", "C3"};

static GVUSB_SCANSEARCH search_for(int mask, const char* family, const char* name, const char* id) {
    GVUSB_SCANSEARCH search = {.mask = mask};
    snprintf(search.famName, sizeof search.famName, "%s", family);
    snprintf(search.devName, sizeof search.devName, "%s", name);
    snprintf(search.devId, sizeof search.devId, "%s", id);
    return search;
}

static int scan_for(int mask, const char* family, const char* name, const char* id) {
    GVUSB_SCANSEARCH search = search_for(mask, family, name, id);
    return GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search);
}

static void check_only(const char* id) {
    assert_int_equal(GVUSB_GetScanListSize(), 1);
    assert_string_equal(scan_list_parameter(0, "DEVICE-ID"), id);
}

static void check_finds_nothing(int mask, const char* family, const char* name, const char* id) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(scan_for(mask, family, name, id), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(last_error(0), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(GVUSB_GetScanListSize(), 0);
}

static void check_all_usable(void) {
    assert_int_equal(GVUSB_GetScanListSize(), usable);
    for (int i = 0; i < usable; ++i) {
        assert_int_not_equal(scan_list_index(ids[i]), -1);
    }
}

static void ScanAllFindsTheReadersAndNothingElse(void** state) {
    assert_int_equal(reader_count(), readers);
    assert_int_equal(GVUSB_GetScanListSize(), 0);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(last_error(0), 0);
    check_all_usable();
    GVUSB_ClearScanList();
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL_15, NULL), 0);
    check_all_usable();
}

static void EveryEntryReturnsItsIdentity(void** state) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    const int index = scan_list_index("A1");
    assert_string_equal(scan_list_parameter(index, "device-id"), "A1");
    assert_string_equal(scan_list_parameter(index, "FAMILYNAME"), "Desk");
    assert_string_equal(scan_list_parameter(index, "DEVICENAME"), "Desk reader, small");
    assert_string_equal(scan_list_parameter(index, "INTERFACE"), "TESK-RCI2-x");
    assert_string_equal(scan_list_parameter(index, "TIMEOUT"), "1000");
    assert_string_equal(scan_list_parameter(index, "DEVICEHND"), "0");
}

static void TypeNumberIsReadFromAnOpenReader(void** state) {
    char value[GVUSB_PARAMETER_SIZE];
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    const int index = scan_list_index("B2");
    assert_int_equal(GVUSB_GetScanListPara(index, "TYPENUMBER", value), GVUSB_ERR_NOT_OPENED);
    assert_int_equal(last_error(0), GVUSB_ERR_NOT_OPENED);

    const int handle = GVUSB_OpenDevice(0xB2);
    char handle_text[16];
    snprintf(handle_text, sizeof handle_text, "%d", handle);
    assert_string_equal(scan_list_parameter(index, "TYPENUMBER"), "G-200");
    assert_string_equal(scan_list_parameter(index, "DEVICEHND"), handle_text);
}

static void AnEntryThatDoesNotExistReadsAsPositive1115(void** state) {
    char value[GVUSB_PARAMETER_SIZE] = "untouched";
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(GVUSB_GetScanListPara(usable, "DEVICE-ID", value), GVUSB_NO_SCAN_LIST_ENTRY);
    assert_int_equal(last_error(0), GVUSB_NO_SCAN_LIST_ENTRY);
    assert_int_equal(GVUSB_GetScanListPara(-1, "DEVICE-ID", value), GVUSB_NO_SCAN_LIST_ENTRY);
    assert_string_equal(value, "untouched");
    assert_int_equal(GVUSB_GetScanListPara(0, "DEVICE_ID", value), GVUSB_ERR_UNKNOWN_PARAMETER);
}

static void StepsThroughTheScanListToItsEnd(void** state) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_CURRENT_ENTRY);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_FIRST, NULL), 0);
    for (int index = 1; index < usable; ++index) {
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), index);
        assert_int_equal(last_error(0), 0);
    }
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_CURRENT_ENTRY);
    assert_int_equal(last_error(0), GVUSB_ERR_NO_CURRENT_ENTRY);
    assert_int_equal(GVUSB_GetScanListSize(), usable);
}

static void ScanAllLeavesNoCurrentEntry(void** state) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_FIRST, NULL), 0);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_CURRENT_ENTRY);
}

static void SteppingOpensOneReaderAfterTheOther(void** state) {
    const int first = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, NULL);
    assert_true(first > 0);
    assert_int_equal(GVUSB_GetDeviceList(first), 0);
    const int second = GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, NULL);
    assert_int_equal(GVUSB_GetDeviceList(first), second);
    const int third = GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, NULL);
    assert_int_equal(GVUSB_GetDeviceList(second), third);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
    check_echo(first);
    check_echo(second);
    check_echo(third);
}

static void UnknownOptionsAreRefused(void** state) {
    static const int unknown[] = {0, -1, 4, 14, 16, GVUSB_SCAN_SEARCH, GVUSB_SCAN_ALL | GVUSB_SCAN_NOTHING};
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    for (size_t i = 0; i < sizeof unknown / sizeof *unknown; ++i) {
        assert_int_equal(GVUSB_Scan(unknown[i], NULL), GVUSB_ERR_UNKNOWN_SCAN_OPTION);
        assert_int_equal(last_error(0), GVUSB_ERR_UNKNOWN_SCAN_OPTION);
    }
    assert_int_equal(GVUSB_GetScanListSize(), usable);
}

static void TheOptionThatDoesNothingKeepsListAndCurrentEntry(void** state) {
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_FIRST, NULL), 0);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NOTHING, NULL), 0);
    assert_int_equal(GVUSB_GetScanListSize(), usable);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), 1);
}

static void FindsByFamilyName(void** state) {
    assert_int_equal(scan_for(GVUSB_SEARCH_FAMILY_NAME, "Desk", "", ""), 0);
    check_only("A1");
    check_finds_nothing(GVUSB_SEARCH_FAMILY_NAME, "desk", "", "");
    check_finds_nothing(GVUSB_SEARCH_FAMILY_NAME, "Des", "", "");
}

static void FindsByDeviceName(void** state) {
    assert_int_equal(scan_for(GVUSB_SEARCH_DEVICE_NAME, "", "Gate reader", ""), 0);
    check_only("B2");
    check_finds_nothing(GVUSB_SEARCH_DEVICE_NAME, "", "Gate reader 2", "");
}

static void FindsByDeviceId(void** state) {
    static const char* const spellings[] = {"c3", "C3", "0xC3", "00c3"};
    for (size_t i = 0; i < sizeof spellings / sizeof *spellings; ++i) {
        assert_int_equal(scan_for(GVUSB_SEARCH_DEVICE_ID, "", "", spellings[i]), 0);
        check_only("C3");
    }
    check_finds_nothing(GVUSB_SEARCH_DEVICE_ID, "", "", "C4");
    check_finds_nothing(GVUSB_SEARCH_DEVICE_ID, "", "", "reader");
}

static void OnlyTheFirstCriterionOfTheMaskCounts(void** state) {
    assert_int_equal(scan_for(GVUSB_SEARCH_FAMILY_NAME | GVUSB_SEARCH_DEVICE_ID, "Desk", "", "B2"), 0);
    check_only("A1");
    assert_int_equal(scan_for(GVUSB_SEARCH_DEVICE_NAME | GVUSB_SEARCH_DEVICE_ID, "", "Gate reader", "A1"), 0);
    check_only("B2");
    check_finds_nothing(0x8, "Desk", "Gate reader", "A1");
    check_finds_nothing(0, "Desk", "Gate reader", "A1");
}

static void TheSearchRecordIsUsedOnlyWithItsOption(void** state) {
    GVUSB_SCANSEARCH search = search_for(GVUSB_SEARCH_DEVICE_ID, "", "", "A1");
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, &search), 0);
    check_all_usable();
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, NULL), 0);
    check_all_usable();
}

static void SearchAndOpenOpensOnlyMatches(void** state) {
    GVUSB_SCANSEARCH search = search_for(GVUSB_SEARCH_DEVICE_ID, "", "", "B2");
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    const int handle = GVUSB_GetDeviceHnd(0xB2);
    assert_true(handle > 0);
    assert_int_equal(GVUSB_GetDeviceList(0), handle);
    assert_int_equal(GVUSB_GetDeviceList(handle), 0);

    search = search_for(GVUSB_SEARCH_DEVICE_ID, "", "", "A1");
    const int other = GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST | GVUSB_SCAN_SEARCH, &search);
    assert_true(other > 0);
    assert_int_equal(GVUSB_GetDeviceHnd(0xA1), other);
    check_echo(handle);
    check_echo(other);
}

static void AnEmptyBusHasNothingToScan(void** state) {
    for (int reader = 1; reader <= readers; ++reader) {
        bus("unplug %d", reader);
    }
    scan_until(0);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_FIRST, NULL), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(last_error(0), GVUSB_ERR_NO_DEVICE_FOUND);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_NEXT, NULL), GVUSB_ERR_NO_CURRENT_ENTRY);
    assert_int_equal(GVUSB_GetDeviceList(0), 0);
}

static void AReaderThatCannotIdentifyItselfIsLeftOut(void** state) {
    static const int strings[] = {1, 3, 5, 6};
    for (size_t i = 0; i < sizeof strings / sizeof *strings; ++i) {
        bus("fail-string %d %d on", gate + 1, strings[i]);
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
        assert_int_equal(GVUSB_GetScanListSize(), usable - 1);
        assert_int_equal(scan_list_index("B2"), -1);
        bus("fail-string %d %d off", gate + 1, strings[i]);
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
        check_all_usable();
    }
}

static void AReaderThatMayNotBeOpenedIsLeftOut(void** state) {
    bus("refuse %d EACCES", gate + 1);
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    assert_int_equal(scan_list_index("B2"), -1);
}

static void ADeviceIdThatIsNoNumberIsLeftOut(void** state) {
    plug_new("id=reader,family=Odd");
    const int odd = plug_new("id=FEED");
    scan_until(usable + 1);
    assert_int_not_equal(scan_list_index("FEED"), -1);
    bus("string %d 1 %s", odd, "xyz");
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
    check_all_usable();
}

static void ReadersWithTheSameDeviceIdAreAllListed(void** state) {
    plug_new("id=A1,name=Another");
    scan_until(usable + 1);
    GVUSB_SCANSEARCH search = search_for(GVUSB_SEARCH_DEVICE_ID, "", "", "A1");
    assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL | GVUSB_SCAN_SEARCH, &search), 0);
    assert_int_equal(GVUSB_GetScanListSize(), 2);
}

static void ThirtyTwoReadersAreFoundAndOpened(void** state) {
    enum { more = 32, most = usable + more };
    plug_new("id=1000,name=One of many,copies=32");
    scan_until(most);
    assert_int_equal(GVUSB_ScanAndOpen(GVUSB_SCAN_ALL, NULL), 0);
    int opened = 0;
    for (int handle = GVUSB_GetDeviceList(0); handle != 0; handle = GVUSB_GetDeviceList(handle)) {
        check_echo(handle);
        ++opened;
    }
    assert_int_equal(opened, most);
    for (unsigned int id = 0x1000; id < 0x1000 + more; ++id) {
        assert_true(GVUSB_GetDeviceHnd(id) > 0);
    }
}

static void ClearingTheScanListLeavesOpenReadersOpen(void** state) {
    const int handle = open_reader(0xA1);
    assert_int_equal(GVUSB_ClearScanList(), 0);
    assert_int_equal(GVUSB_GetScanListSize(), 0);
    assert_int_equal(GVUSB_GetDeviceHnd(0xA1), handle);
    check_echo(handle);
}

static void AnOpenReaderKeepsItsHandleAcrossScans(void** state) {
    const int handle = open_reader(0xA1);
    for (int i = 0; i < 3; ++i) {
        assert_int_equal(GVUSB_Scan(GVUSB_SCAN_ALL, NULL), 0);
        check_all_usable();
        assert_int_equal(GVUSB_GetDeviceHnd(0xA1), handle);
        check_echo(handle);
    }
    assert_int_equal(scan_for(GVUSB_SEARCH_DEVICE_ID, "", "", "B2"), 0);
    check_only("B2");
    check_echo(handle);
}

int main(int argc, char** argv) {
    static const struct CMUnitTest tests[] = {
        TEST_CASE(ScanAllFindsTheReadersAndNothingElse),
        TEST_CASE(EveryEntryReturnsItsIdentity),
        TEST_CASE(TypeNumberIsReadFromAnOpenReader),
        TEST_CASE(AnEntryThatDoesNotExistReadsAsPositive1115),
        TEST_CASE(StepsThroughTheScanListToItsEnd),
        TEST_CASE(ScanAllLeavesNoCurrentEntry),
        TEST_CASE(SteppingOpensOneReaderAfterTheOther),
        TEST_CASE(UnknownOptionsAreRefused),
        TEST_CASE(TheOptionThatDoesNothingKeepsListAndCurrentEntry),
        TEST_CASE(FindsByFamilyName),
        TEST_CASE(FindsByDeviceName),
        TEST_CASE(FindsByDeviceId),
        TEST_CASE(OnlyTheFirstCriterionOfTheMaskCounts),
        TEST_CASE(TheSearchRecordIsUsedOnlyWithItsOption),
        TEST_CASE(SearchAndOpenOpensOnlyMatches),
        TEST_CASE(AnEmptyBusHasNothingToScan),
        TEST_CASE(AReaderThatCannotIdentifyItselfIsLeftOut),
        TEST_CASE(AReaderThatMayNotBeOpenedIsLeftOut),
        TEST_CASE(ADeviceIdThatIsNoNumberIsLeftOut),
        TEST_CASE(ReadersWithTheSameDeviceIdAreAllListed),
        TEST_CASE(ThirtyTwoReadersAreFoundAndOpened),
        TEST_CASE(ClearingTheScanListLeavesOpenReadersOpen),
        TEST_CASE(AnOpenReaderKeepsItsHandleAcrossScans),
    };
    return run_group("scanning", tests, sizeof tests / sizeof *tests, argc, argv);
}
